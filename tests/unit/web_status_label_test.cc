#include "web/status_label.h"

#include "support/agent_test.h"

// The first of this order that one of two streams is in names them both.
TEST(StatusLabel, OfAPair) {
  const std::vector<Row> order = rows(
      "4 -> Error | 0 -> Offline | 3 -> Streaming | 1 -> Connecting | 2 -> Registered | 5 -> "
      "Error");
  for (size_t i = 0; i < order.size(); i++) {
    for (size_t j = i; j < order.size(); j++) {
      StreamMonitorState a = {};
      StreamMonitorState b = {};
      a.status = static_cast<StreamStatus>(std::stoi(order[i].first));
      b.status = static_cast<StreamStatus>(std::stoi(order[j].first));
      for (const auto &label : {pair_status_label(a, b), pair_status_label(b, a)})
        EXPECT_EQ(label, order[i].second) << order[j].second;
      EXPECT_STRCASEEQ(pair_status_css_class(b, a), ("status-" + order[i].second).c_str());
    }
  }
}
