#include "core/string_builder.h"

#include "support/agent_test.h"

TEST(StringBuilder, FailuresLeaveItAsItWas) {
  // Without memory for the temporary area of a long text, or for the growth.
  const std::string text(1024, 'x');
  const int failures = fail_each_allocation([&text](const auto &fault) {
    // strdup allocates inside the C library, where no fault is injected.
    StringBuilder builder = {.data = strdup("kept"), .length = 4, .capacity = 5};
    EXPECT_FALSE(string_builder_appendf(&builder, "x%lc", wint_t{0x7fffffff}));  // no character
    const bool appended = string_builder_appendf(&builder, "%s", text.c_str());
    EXPECT_NE(appended, fault.struck());
    EXPECT_EQ(builder.data, fault.struck() ? "kept" : "kept" + text);
    EXPECT_EQ(builder.length, fault.struck() ? 4U : 1028U);
    EXPECT_EQ(builder.capacity, fault.struck() ? 5U : 4096U);
    free(builder.data);
  });
  EXPECT_EQ(failures, 2);
}
