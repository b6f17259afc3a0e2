#include "stream/rtsp_request.h"

#include <stdio.h>
#include <string.h>

#include <string_view>

#include "core/log.h"
#include "core/text.h"

static constexpr size_t CAMERA_URL_SIZE = 256;  // bytes, terminator included

// Agent to camera.
static constexpr char PROBE_REQUEST[] =
    "OPTIONS rtsp://%s:%d%s RTSP/1.0\r\n"
    "CSeq: 1\r\n"
    "User-Agent: Camera Proxy\r\n"
    "\r\n";
// The second value begins with the cloud's CSeq header and ends with its empty line.
static constexpr char REWRITTEN_REQUEST[] =
    "OPTIONS %s RTSP/1.0\r\n"
    "%s";

// What snprintf returned, when the whole text is in a buffer of `size` bytes; else -1.
static int whole_length(int length, size_t size) {
  return length >= 0 && static_cast<size_t>(length) < size ? length : -1;
}

// Without the credentials: a camera that wants them for OPTIONS already is never registered.
int rtsp_compose_probe(const StreamContext *stream, char *out, size_t size) {
  return whole_length(
      snprintf(out, size, PROBE_REQUEST, stream->host, int{stream->port}, stream->uri), size);
}

// The colon is written even when the password is empty.
static int compose_camera_url(const StreamContext *stream, char *out, size_t size) {
  const int port = stream->port;
  if (stream->user && stream->user[0] != '\0') {
    return whole_length(snprintf(out, size, "rtsp://%s:%s@%s:%d%s", stream->user, stream->password,
                                 stream->host, port, stream->uri),
                        size);
  }
  return whole_length(snprintf(out, size, "rtsp://%s:%d%s", stream->host, port, stream->uri), size);
}

int rtsp_rewrite_options(const char *request, const StreamContext *stream, char *out,
                         size_t out_size) {
  // Spelled exactly so: what stands before it, a header in other letters included, is dropped.
  const char *cseq = strstr(request, "CSeq:");
  if (!cseq) {
    log_message(LOG_ERROR, "No CSeq found in OPTIONS request");
    return -1;
  }
  char url[CAMERA_URL_SIZE];
  if (compose_camera_url(stream, url, sizeof url) < 0) {
    log_message(LOG_ERROR, "Camera URL too long");
    return -1;
  }
  const int length = whole_length(snprintf(out, out_size, REWRITTEN_REQUEST, url, cseq), out_size);
  if (length < 0) log_message(LOG_ERROR, "Modified OPTIONS request too long");
  return length;
}

bool rtsp_parse_status(const char *answer, int *code) {
  static constexpr std::string_view VERSION = "RTSP/1.0";
  if (!std::string_view(answer).starts_with(VERSION)) return false;
  // As the pattern "RTSP/1.0 %d" reads it: any white space, also none, then a decimal number.
  const char *number = answer + VERSION.size();
  while (is_white_space(*number))
    number++;
  const char *digits = *number == '+' || *number == '-' ? number + 1 : number;
  if (!is_decimal_digit(*digits)) return false;
  *code = text_to_int(number);
  return true;
}
