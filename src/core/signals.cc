// glibc's fortified ppoll takes times of 32 bits on 32-bit devices, whatever _TIME_BITS says: the
// fraction of a second would be lost on little-endian ones, and the whole time on big-endian ones.
#undef _FORTIFY_SOURCE

#include "core/signals.h"

#include <poll.h>

#include "core/clock.h"
#include "core/context.h"

// Stays installed: a second signal, during tear-down, clears the flag once more.
void handle_signal(int /*signal_number*/) {
  proxy_context.running = false;
}

static sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void signals_install() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGTERM, handle_signal);
  signal(SIGINT, handle_signal);
  // A program inherits what its starter has blocked.
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// The mask is a thread's own; a new thread begins with its creator's.
StopSignalsBlocked::StopSignalsBlocked() {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, &before_);
}

StopSignalsBlocked::~StopSignalsBlocked() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void main_pause(int seconds) {
  // The stop signals are let through only inside ppoll, so that none can land between the look at
  // `running` and the sleep.
  const StopSignalsBlocked blocked;
  const int64_t end = monotonic_ms() + int64_t{seconds} * 1000;
  for (int64_t left = end - monotonic_ms(); left > 0 && agent_running();
       left = end - monotonic_ms()) {
    const timespec step = {.tv_sec = static_cast<time_t>(left / 1000),
                           .tv_nsec = static_cast<long>(left % 1000) * 1'000'000L};
    ppoll(nullptr, 0, &step, blocked.before());
  }
}
