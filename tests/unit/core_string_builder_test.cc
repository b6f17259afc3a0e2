#include "core/string_builder.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>

#include "support/fault.h"

static std::string described(const StringBuilderOwner &builder) {
  EXPECT_EQ(builder->data[builder->length], '\0');
  return std::to_string(builder->length) + "/" + std::to_string(builder->capacity);
}

TEST(StringBuilder, GrowsToTheNextMultipleOf4096AboveTheLength) {
  struct Case {
    size_t capacity;
    size_t first;
    size_t second;
    const char *expected;
  };
  for (const Case &c :
       {Case{16, 15, 0, "15/16"}, Case{16, 15, 1, "16/4096"}, Case{1024, 4095, 0, "4095/4096"},
        Case{1024, 4096, 0, "4096/8192"}, Case{256, 0, 300, "300/4096"},
        Case{4096, 4095, 1, "4096/8192"}, Case{0, 0, 0, "0/1"}, Case{5000, 4999, 1, "5000/8192"}}) {
    const StringBuilderOwner builder(string_builder_create(c.capacity));
    ASSERT_TRUE(string_builder_append(builder.get(), std::string(c.first, 'a').c_str()));
    ASSERT_TRUE(string_builder_append(builder.get(), std::string(c.second, 'b').c_str()));
    EXPECT_EQ(described(builder), c.expected);
    EXPECT_EQ(builder->data, std::string(c.first, 'a') + std::string(c.second, 'b'));
  }
}

TEST(StringBuilder, FormatsTextOfAnyLengthWhole) {
  for (const size_t length : {0U, 1021U, 1022U, 1023U, 20000U}) {
    const std::string text(length, 'x');
    const StringBuilderOwner builder(string_builder_create(1));
    ASSERT_TRUE(string_builder_appendf(builder.get(), "%s%d%s", "<", 7, text.c_str()));
    EXPECT_EQ(builder->data, "<7" + text);
    EXPECT_EQ(builder->length, length + 2);
  }
}

TEST(StringBuilder, RefusesNoneAndLeavesTheBuilderAsItWas) {
  const StringBuilderOwner builder(string_builder_create(8));
  ASSERT_TRUE(string_builder_append(builder.get(), "kept"));
  const char *volatile none = nullptr;
  EXPECT_FALSE(string_builder_append(builder.get(), none));
  EXPECT_FALSE(string_builder_append(nullptr, "x"));
  EXPECT_FALSE(string_builder_appendf(nullptr, "x"));
  // A width that no int can count is a formatting error.
  const volatile int width = INT_MAX;
  EXPECT_FALSE(string_builder_appendf(builder.get(), "%*sx", width, ""));
  EXPECT_STREQ(builder->data, "kept");
  EXPECT_EQ(described(builder), "4/8");
  string_builder_free(nullptr);
}

TEST(StringBuilder, FailedAllocationsLeaveItAsItWas) {
  for (const Times times : {Times::ONCE, Times::FROM_THEN_ON}) {
    EXPECT_EQ(fail_each_allocation(times,
                                   [](const Fault &fault) {
                                     const StringBuilderOwner made(string_builder_create(4));
                                     EXPECT_EQ(made == nullptr, fault.struck());
                                   }),
              2);
    // The temporary area of a long text, then the growth.
    const std::string text(1024, 'x');
    const int failures = fail_each_allocation(times, [&text](const Fault &fault) {
      // strdup allocates inside the C library, where no fault is injected.
      StringBuilder builder = {.data = strdup("kept"), .length = 4, .capacity = 5};
      const bool appended = string_builder_appendf(&builder, "%s", text.c_str());
      EXPECT_EQ(appended, !fault.struck());
      EXPECT_EQ(builder.data, fault.struck() ? "kept" : "kept" + text);
      EXPECT_EQ(builder.length, fault.struck() ? 4U : 1028U);
      EXPECT_EQ(builder.capacity, fault.struck() ? 5U : 4096U);
      free(builder.data);
    });
    EXPECT_EQ(failures, 2);
  }
}
