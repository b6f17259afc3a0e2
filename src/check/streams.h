// The streams of a configuration, made ready as the agent's start-up does, but without any thread.
#pragma once

#include <memory>
#include <span>

#include "core/config.h"
#include "stream/stream_context.h"

struct StreamFreer {
  void operator()(StreamContext *stream) const { stream_context_free(stream); }
};

struct CheckedStream {
  std::unique_ptr<StreamContext, StreamFreer> record;
  const char *url;  // the configuration's
  bool parsed;      // whether the agent makes something of the URL
};

// Stands in for the cloud's request where the agent needs one.
inline constexpr char CLOUD_REQUEST[] = "OPTIONS rtsp://cloud/ RTSP/1.0\r\nCSeq: 1\r\n\r\n";

// Fills the streams of the configuration, each in its place, from that of the process context.
// False without memory.
[[nodiscard]] bool prepare_streams(const AgentConfig &config, std::span<CheckedStream> streams);

// Whether the agent could connect to the stream's camera at all.
[[nodiscard]] bool has_address(const CheckedStream &stream);

// Reports what is wrong with each. The process context has the cloud ID, or the longest there may
// be.
void check_streams(std::span<const CheckedStream> streams);

// Whether a text would break the registration, in which texts stand as they are between quotes.
[[nodiscard]] bool breaks_registration(const char *text);
