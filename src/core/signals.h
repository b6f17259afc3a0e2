// The stop signals, SIGINT and SIGTERM: who handles them and which thread gets them.
#pragma once

#include <signal.h>

// Installs the handler, lets the stop signals through and ignores SIGPIPE: a write to a peer that
// has closed must fail, never end the process. Main thread, first of all.
void signals_install();

// The handler: clears the context's `running` and does nothing else.
void handle_signal(int signal_number);

// Blocks the stop signals in the calling thread for as long as it lives. A thread created meanwhile
// inherits that for good, so that the signals always reach the main thread.
class StopSignalsBlocked {
 public:
  StopSignalsBlocked();
  StopSignalsBlocked(const StopSignalsBlocked &) = delete;
  StopSignalsBlocked &operator=(const StopSignalsBlocked &) = delete;
  ~StopSignalsBlocked();

  // The mask that was in force before.
  [[nodiscard]] const sigset_t *before() const { return &before_; }

 private:
  sigset_t before_;
};

// Main thread: sleeps for whole seconds, or until `running` is clear. A signal ends the sleep at
// once, also one that lands just before it.
void main_pause(int seconds);
