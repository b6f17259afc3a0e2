// Life of the worker threads (stream threads and the relays' cloud-to-camera threads): how they
// start, how long they may sleep, and how tear-down gets every one of them out within moments.
//
// A worker is detached. It may block in a pause, a connect, a receive or a send for up to two
// minutes; workers_stop() ends all of these and returns when the last worker has left, so that
// records and monitor can be released after it.
#pragma once

#include <stddef.h>

#include "core/config.h"
#include "core/owners.h"

// A stream holds at most two sockets at a time: its cloud and its camera connection.
inline constexpr size_t MAX_WORKER_SOCKETS = 2 * MAX_STREAMS;

// Prepares the room. Main thread, once, before any worker.
void workers_open();

// Starts body(argument) on a detached thread with SIGINT and SIGTERM blocked, so that these always
// reach the main thread. 0, or the error number of the failed creation. The body holds a
// WorkerPresence from its first to its last act.
[[nodiscard]] int worker_start(void *(*body)(void *), void *argument);

// Stands for a running worker, which tear-down waits for.
class WorkerPresence {
 public:
  WorkerPresence() = default;
  WorkerPresence(const WorkerPresence &) = delete;
  WorkerPresence &operator=(const WorkerPresence &) = delete;
  ~WorkerPresence();
};

// Worker: waits until workers_release, or until tear-down begins.
void worker_await_release();

// Main thread, once the start is over: from now on workers may take descriptors and memory. Until
// then the rest of the start has them to itself.
void workers_release();

// Worker: sleeps by the monotonic clock; returns early when tear-down begins.
void worker_pause(int milliseconds);

// A worker's socket: tear-down can wake whoever blocks on it, and never touches its number after
// it has been closed. -1 means none.
class WorkerSocket {
 public:
  WorkerSocket() = default;
  // Takes the socket; holds none (EMFILE) when the table of workers' sockets is full.
  explicit WorkerSocket(Fd socket);
  WorkerSocket(WorkerSocket &&other) noexcept = default;
  WorkerSocket &operator=(WorkerSocket &&other) = delete;
  ~WorkerSocket();

  explicit operator bool() const { return static_cast<bool>(fd_); }
  [[nodiscard]] int get() const { return fd_.get(); }

 private:
  Fd fd_;
  size_t slot_ = 0;  // in the table; of no meaning without a socket
};

// A new TCP socket of a worker, to be given to tcp_connect; none (errno set) on failure.
[[nodiscard]] WorkerSocket worker_tcp_socket();

// Main thread: clears `running`, wakes every worker and returns when all have left.
void workers_stop();
