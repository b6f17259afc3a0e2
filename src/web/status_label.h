// A stream's status as a person sees it: a label, the same in every language, and the CSS class of
// its colour; for one stream and for a pair of streams. All results are constants.
#pragma once

#include "monitor/monitor.h"

[[nodiscard]] const char *status_label(StreamStatus status);
[[nodiscard]] const char *status_css_class(StreamStatus status);

// A pair streams as soon as one of its streams does, but is offline as soon as one of them is.
[[nodiscard]] const char *pair_status_label(const StreamMonitorState &a,
                                            const StreamMonitorState &b);
[[nodiscard]] const char *pair_status_css_class(const StreamMonitorState &a,
                                                const StreamMonitorState &b);
