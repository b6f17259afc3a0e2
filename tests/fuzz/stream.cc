// Camera URL, the camera's answer, then what the cloud says piece by piece: OPTIONS reaches the
// camera with nothing but its first line changed, an answer of 200 the cloud as it came.
#include "core/text.h"
#include "stream/camera.h"
#include "stream/registration.h"
#include "stream/rtsp_url.h"
#include "target.h"

// Probe, registration and handshake, one after the other. The camera answers the same each time.
static void talk(const StreamContext &stream, const std::string &answer, const Parts &pieces) {
  far_pieces = {answer};
  const bool online = stream_check(&stream);
  REQUIRE(!online || answer.find("RTSP/1.0 200 OK") != NONE);
  REQUIRE(far_took.empty() || far_took.starts_with("OPTIONS rtsp://"));

  far_pieces = pieces;
  char *request = stream.buffers->cloud;
  const int length = cloud_wait_for_options(FAR_SIDE, &stream, request, TRANSFER_SIZE);
  if (length == -1) return;
  REQUIRE(length < static_cast<int>(TRANSFER_SIZE) && request[length] == '\0');
  REQUIRE(std::string_view(request).starts_with("OPTIONS"));

  const std::string accepted = answer.substr(0, TRANSFER_SIZE - 1);
  int code = 0;
  sscanf(accepted.c_str(), "RTSP/1.0 %d", &code);
  far_pieces = {answer};
  far_took.clear();
  const bool done = rtsp_handshake(FAR_SIDE, FAR_SIDE, request, &stream);
  REQUIRE(done == (!far_took.empty() && code == 200));
  if (far_took.empty()) return;
  // The camera's URL has up to 255 bytes.
  const char *kept = strstr(request, "CSeq:");
  REQUIRE(kept && far_took.starts_with("OPTIONS rtsp://"));
  const std::string rest = std::string(" RTSP/1.0\r\n") + kept + (done ? accepted : "");
  REQUIRE(far_took.ends_with(rest) && far_took.size() <= rest.size() + 8 + 255);
}

void fuzz(Parts parts) {
  static char text[] = "text";
  static const bool ready = monitor_init(1);
  proxy_context.config.cloud_id = proxy_context.config.vendor = proxy_context.config.model = text;
  // Not mapped, so that what oversteps it is seen.
  const auto buffers = std::make_unique<StreamBuffers>();
  StreamContext stream = {.stream_id = ready, .buffers = buffers.get()};
  parts.resize(std::max<size_t>(parts.size(), 2));
  const std::string url = parts[0].c_str(), answer = parts[1];
  parts.erase(parts.begin(), parts.begin() + 2);
  if (rtsp_parse_url(url.c_str(), &stream)) {
    REQUIRE(url.ends_with(stream.uri) || strcmp(stream.uri, "/") == 0);
    REQUIRE(stream.uri[0] == '/' && !strpbrk(stream.host, ":/"));
    talk(stream, answer, parts);
  }
  for (char **owned : {&stream.uri, &stream.host, &stream.user, &stream.password})
    text_release(owned);
}
