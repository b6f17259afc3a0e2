// What the fuzz targets share: an input in parts, and a far side that delivers them. Nothing waits:
// the library's calls of the system end here, through the linker's --wrap. Included once a program.
#pragma once

#include <poll.h>
#include <sanitizer/asan_interface.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/log.h"
#include "core/workers.h"
#include "monitor/monitor.h"

// One input, split at its record separators, which mean nothing to any protocol here.
using Parts = std::deque<std::string>;
static constexpr char PART_END = 0x1e;
static constexpr size_t NONE = std::string::npos;

// The target: its work on one input.
static void fuzz(Parts parts);

// A claim that does not hold ends the run: a finding.
#define REQUIRE(claim) ((claim) ? void() : (dprintf(2, "not so: %s\n", #claim), abort()))

static constexpr int FAR_SIDE = 1000;  // stands for a connection
static Parts far_pieces;               // what the far side sends; an empty one: a time-out
static std::string far_took;           // what it was sent

extern "C" {
int succeed() {
  return 0;
}

int __wrap_socket(int, int, int) {
  return dup(STDERR_FILENO);
}

// What is waited for last has always come.
int __wrap_poll(pollfd *waits, nfds_t count, int) {
  waits[count - 1].revents = POLLIN;
  return 1;
}

// The pause before another attempt: there is none.
int __wrap_ppoll(pollfd *, nfds_t, const timespec *, const sigset_t *) {
  proxy_context.running = false;
  return 0;
}

// All the room that is named must be there, also what a short piece leaves empty.
ssize_t __wrap_recv(int, void *buffer, size_t size, int) {
  REQUIRE(size > 0 && !__asan_region_is_poisoned(buffer, size));
  if (far_pieces.empty()) return 0;
  std::string &piece = far_pieces.front();
  const size_t count = piece.copy(static_cast<char *>(buffer), size);
  piece.erase(0, count);
  if (piece.empty()) far_pieces.pop_front();
  errno = EAGAIN;
  return count > 0 ? static_cast<ssize_t>(count) : -1;
}

ssize_t __wrap_send(int, const void *data, size_t size, int) {
  far_took.append(static_cast<const char *>(data), size);
  return static_cast<ssize_t>(size);
}

ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size) {
  return fd == FAR_SIDE ? __wrap_send(fd, data, size, 0) : __real_write(fd, data, size);
}

// The log goes nowhere; the fuzzer and the sanitizers have kept streams of their own.
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!log_enabled) {
    workers_open();
    stdout = stderr = fopencookie(nullptr, "w", {});
  }
  log_enabled = proxy_context.running = true;
  far_took.clear();
  Parts parts;
  std::string_view rest(reinterpret_cast<const char *>(data), size);
  for (size_t end; (end = rest.find(PART_END)) != NONE; rest.remove_prefix(end + 1))
    parts.emplace_back(rest.substr(0, end));
  parts.emplace_back(rest);
  fuzz(parts);
  return 0;
}
}
