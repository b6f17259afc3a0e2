#include "check/streams.h"

#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "check/agent_log.h"
#include "check/report.h"
#include "core/context.h"
#include "core/sockets.h"
#include "core/text.h"
#include "monitor/monitor.h"
#include "stream/registration.h"
#include "stream/rtsp_request.h"
#include "stream/rtsp_url.h"
#include "web/channels_api.h"

static constexpr size_t NONE = std::string_view::npos;

bool prepare_streams(const AgentConfig &config, std::span<CheckedStream> streams) {
  if (!monitor_init(streams.size())) return false;
  for (size_t i = 0; i < streams.size(); i++) {
    CheckedStream &stream = streams[i];
    stream.record.reset(stream_context_create());
    stream.url = config.stream_urls[i];
    if (!stream.record || !text_assign(&stream.record->uri, stream.url)) return false;
    stream.record->stream_id = static_cast<uint16_t>(i + 1);
    stream.parsed = rtsp_parse_url(stream.record->uri, stream.record.get());
  }
  return true;
}

bool has_address(const CheckedStream &stream) {
  sockaddr_in address;
  return stream.parsed && tcp_address(stream.record->host, stream.record->port, &address);
}

bool breaks_registration(const char *text) {
  const std::string_view view = text;
  return std::any_of(view.begin(), view.end(), [](char c) {
    return c == '"' || c == '\\' || static_cast<unsigned char>(c) < ' ';
  });
}

// What stands in the URL between the login and the path.
static std::string_view written_address(const CheckedStream &stream) {
  std::string_view rest = stream.url;
  rest.remove_prefix(rest.find("://") + 3);
  const size_t at_sign = rest.find('@');
  if (at_sign != NONE) rest.remove_prefix(at_sign + 1);
  return {rest.data(), std::min(rest.find('/'), rest.size())};
}

// --- One rule each -------------------------------------------------------------------------------

static void check_scheme(const CheckedStream &stream) {
  if (stream.parsed) return;
  if (std::string_view(stream.url).starts_with("rtsps")) {
    report_stream(Level::ERROR, stream.record->stream_id,
                  "\"rtsps\": no connection of the agent is encrypted, and it does not start; give "
                  "the camera's rtsp:// URL");
  } else {
    report_stream(Level::ERROR, stream.record->stream_id,
                  "the URL does not begin with \"rtsp://\", in small letters, and the agent does "
                  "not start; write rtsp://ADDRESS/PATH");
  }
}

// True when the rest of the address means nothing, and may hold a piece of the password.
static bool has_stray_at_sign(const CheckedStream &stream) {
  return strchr(stream.record->user, '/') || strchr(stream.record->password, '/') ||
         written_address(stream).find('@') != NONE;
}

static void check_at_signs(const CheckedStream &stream) {
  if (!stream.parsed || !has_stray_at_sign(stream)) return;
  report_stream(
      Level::ERROR, stream.record->stream_id,
      "the login ends at the first \"@\": \"@\" or \"/\" cannot be in it, nor \"@\" in the "
      "path of a URL without login; give the camera's account another password");
}

static void check_host(const CheckedStream &stream) {
  if (!stream.parsed || has_address(stream) || has_stray_at_sign(stream)) return;
  const std::string_view address = written_address(stream);
  const size_t number = stream.record->stream_id;
  if (address.starts_with('[') || (address.find("::") != NONE)) {
    report_stream(Level::ERROR, number,
                  "an IPv6 address: the agent reaches cameras by IPv4 only; "
                  "write the camera's IPv4 address");
  } else {
    report_stream(
        Level::ERROR, number,
        "\"%s\" is no IPv4 address, and names are never looked up; write the number, such "
        "as 192.168.1.64",
        stream.record->host);
  }
}

// The agent reads leading digits and keeps 16 bits of what they say.
static void check_port(const CheckedStream &stream) {
  if (!has_address(stream) || has_stray_at_sign(stream)) return;
  char as_used[sizeof "255.255.255.255:65535"];
  snprintf(as_used, sizeof as_used, "%s:%d", stream.record->host, int{stream.record->port});
  const bool usable = stream.record->port != 0;
  std::string_view written = written_address(stream);
  written.remove_suffix(written.size() - std::min(written.find('?'), written.size()));
  if (usable && written == as_used) return;
  report_stream(usable ? Level::WARNING : Level::ERROR, stream.record->stream_id,
                "the port is no number from 1 to 65535, and the agent takes %d; write the camera's "
                "RTSP port, usually 554",
                int{stream.record->port});
}

// Of the URL as the pages have it: what the channel list takes for the path.
static void check_path(const CheckedStream &stream) {
  StreamMonitorState record;
  char path[MONITOR_TEXT_SIZE];
  if (!stream.parsed || !monitor_get_stream_state(stream.record->stream_id, &record)) return;
  const size_t number = stream.record->stream_id;
  if (strcmp(record.url, stream.url) != 0) {
    report_stream(Level::WARNING, number,
                  "the URL has %zu bytes: cut to %zu on the pages and in the channel list; shorten "
                  "it",
                  strlen(stream.url), strlen(record.url));
    return;
  }
  extract_stream_path(record.url, path, sizeof path);
  if (strcmp(path, stream.record->uri + 1) == 0) return;
  const std::string_view address = written_address(stream);
  if (address.data() + address.size() == stream.url + strlen(stream.url)) {
    report_stream(
        Level::WARNING, number,
        "no path: the channel list shows \"%s\" for one%s; write a \"/\" after the address",
        Masked(path).text, stream.record->password[0] != '\0' ? ", with the password" : "");
  } else {
    report_stream(
        Level::WARNING, number,
        "the channel list shows \"%s\" for the path \"%s\"; no \":\" before a digit there",
        Masked(path).text, stream.record->uri);
  }
}

static void check_braces(const CheckedStream &stream) {
  if (!strpbrk(stream.url, "{}")) return;
  report_stream(Level::WARNING, stream.record->stream_id,
                "braces that are no range stay in the URL; a range is {FIRST-LAST}, with the first "
                "number below the last, once in a URL");
}

// The length of the registration: what it has without the texts, and the texts.
static size_t registration_length(StreamContext *stream, int sender, int receiver) {
  const AgentConfig config = proxy_context.config;
  const StreamContext whole = *stream;
  char empty[] = "";
  proxy_context.config.model = proxy_context.config.vendor = empty;
  stream->user = stream->password = stream->uri = empty;
  char message[TRANSFER_SIZE];
  const bool sent = cloud_send_register(sender, stream);
  const ssize_t frame = sent ? recv(receiver, message, sizeof message, 0) : 0;
  *stream = whole;
  proxy_context.config.model = config.model;
  proxy_context.config.vendor = config.vendor;
  return static_cast<size_t>(frame) + strlen(whole.user) + strlen(whole.password) +
         strlen(whole.uri) + strlen(config.model) + strlen(config.vendor);
}

// Sent for once to nobody.
static void check_registration(const CheckedStream &stream) {
  int ends[2];
  if (!stream.parsed || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
  const Fd sender(ends[0]);
  const Fd receiver(ends[1]);
  StreamContext *record = stream.record.get();
  if (cloud_send_register(sender.get(), record)) {
    char message[TRANSFER_SIZE];
    (void)!recv(receiver.get(), message, sizeof message, 0);
    return;
  }
  report_stream(
      Level::ERROR, record->stream_id,
      "the registration would have %zu bytes, where 1023 are the most, and is never sent; "
      "shorten login, path, vendor or model",
      registration_length(record, sender.get(), receiver.get()));
}

static void check_request(const CheckedStream &stream) {
  if (!stream.parsed) return;
  agent_log_clear();
  char *request = stream.record->buffers->camera;
  if (rtsp_rewrite_options(CLOUD_REQUEST, stream.record.get(), request, TRANSFER_SIZE) >= 0) return;
  report_stream(Level::ERROR, stream.record->stream_id,
                "\"%s\": registered, but never any video; 255 bytes are the most, port and login "
                "included",
                agent_failure());
}

static void check_texts(const CheckedStream &stream) {
  if (!stream.parsed) return;
  const StreamContext &record = *stream.record;
  if (!breaks_registration(record.user) && !breaks_registration(record.password) &&
      !breaks_registration(record.uri)) {
    return;
  }
  report_stream(Level::WARNING, record.stream_id,
                "a quote, backslash or control character in login or path: the registration, which "
                "has it as it is, cannot be read; do without it");
}

// Rule by rule, so that one line can speak of all the channels of a recorder.
void check_streams(std::span<const CheckedStream> streams) {
  static constexpr void (*RULES[])(const CheckedStream &) = {
      check_scheme, check_at_signs,     check_host,    check_port, check_path,
      check_braces, check_registration, check_request, check_texts};
  for (const auto rule : RULES) {
    for (const CheckedStream &stream : streams)
      rule(stream);
  }
}
