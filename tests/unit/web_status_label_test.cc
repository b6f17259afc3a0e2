#include "web/status_label.h"

#include <gtest/gtest.h>

#include <iterator>

// The first of this order that one of two streams is in names them both.
TEST(StatusLabel, OfAPair) {
  static constexpr struct {
    int status;
    const char *label;
    const char *css_class;
  } ORDER[] = {{4, "Error", "status-error"},           {0, "Offline", "status-offline"},
               {3, "Streaming", "status-streaming"},   {1, "Connecting", "status-connecting"},
               {2, "Registered", "status-registered"}, {5, "Error", "status-error"}};
  for (size_t i = 0; i < std::size(ORDER); i++) {
    for (size_t j = i; j < std::size(ORDER); j++) {
      StreamMonitorState a = {};
      StreamMonitorState b = {};
      a.status = static_cast<StreamStatus>(ORDER[i].status);
      b.status = static_cast<StreamStatus>(ORDER[j].status);
      const auto names = testing::Message() << ORDER[i].label << " and " << ORDER[j].label;
      EXPECT_STREQ(pair_status_label(a, b), ORDER[i].label) << names;
      EXPECT_STREQ(pair_status_label(b, a), ORDER[i].label) << names;
      EXPECT_STREQ(pair_status_css_class(b, a), ORDER[i].css_class) << names;
    }
  }
}
