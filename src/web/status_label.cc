#include "web/status_label.h"

const char *status_label(StreamStatus status) {
  switch (status) {
    case STREAM_CONNECTING:
      return "Connecting";
    case STREAM_REGISTERED:
      return "Registered";
    case STREAM_STREAMING:
      return "Streaming";
    case STREAM_ERROR:
      return "Error";
    default:  // also for what is no status
      return "Offline";
  }
}

// A registered stream has a class like the others but no rule in the style sheet: it waits, as it
// should, and is shown in the colour of its surroundings.
const char *status_css_class(StreamStatus status) {
  switch (status) {
    case STREAM_CONNECTING:
      return "status-connecting";
    case STREAM_REGISTERED:
      return "status-registered";
    case STREAM_STREAMING:
      return "status-streaming";
    case STREAM_ERROR:
      return "status-error";
    default:
      return "status-offline";
  }
}

// The first status of this order that one of the two has stands for both: what is wrong goes before
// what works, since a recorder's pair is one camera to its user.
static constexpr StreamStatus PAIR_ORDER[] = {STREAM_ERROR, STREAM_OFFLINE, STREAM_STREAMING,
                                              STREAM_CONNECTING, STREAM_REGISTERED};

static StreamStatus pair_status(const StreamMonitorState &a, const StreamMonitorState &b) {
  for (const StreamStatus status : PAIR_ORDER) {
    if (a.status == status || b.status == status) return status;
  }
  return STREAM_ERROR;  // both hold what is no status
}

const char *pair_status_label(const StreamMonitorState &a, const StreamMonitorState &b) {
  return status_label(pair_status(a, b));
}

const char *pair_status_css_class(const StreamMonitorState &a, const StreamMonitorState &b) {
  return status_css_class(pair_status(a, b));
}
