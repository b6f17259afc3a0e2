// Life of the worker threads (stream threads and the relays' cloud-to-camera threads): how they
// start, how long they may sleep, and how tear-down gets every one of them out within moments.
//
// A worker is detached. It may block in a pause, a connect, a receive or a send for up to two
// minutes; workers_stop() ends all of these and returns when the last worker has left, so that
// records and monitor can be released after it.
#pragma once

#include <stddef.h>

#include "core/owners.h"

// Bytes of stack of a worker, the guard page included: 128 of them at the usual 8 MiB would
// reserve a gigabyte of a 32-bit address space. The deepest path uses less than a third.
inline constexpr size_t WORKER_STACK_SIZE = size_t{128} * 1024;

// Prepares the room, and the heap for many threads that rarely allocate. Main thread, once, before
// any worker.
void workers_open();

// Starts body(argument) on a detached thread with SIGINT and SIGTERM blocked, so that these always
// reach the main thread. 0, or the error number of the failed creation. The body holds a
// WorkerPresence from its first to its last act.
[[nodiscard]] int worker_start(void *(*body)(void *), void *argument);

// Stands for a running worker, which tear-down waits for.
class WorkerPresence {
 public:
  WorkerPresence();
  WorkerPresence(const WorkerPresence &) = delete;
  WorkerPresence &operator=(const WorkerPresence &) = delete;
  ~WorkerPresence();
};

// Worker: sleeps by the monotonic clock; returns early when tear-down begins.
void worker_pause(int milliseconds);

// Worker, about to wait for long: gives the memory back that earlier work has touched on the stack
// below this call, and the pages of `buffer`, whose content is lost. With 64 streams that is most
// of what the agent would hold while nobody watches.
void worker_release_memory(char *buffer, size_t size);

// A worker's socket: tear-down can wake whoever blocks on it, and never touches its number after
// it has been closed. -1 means none.
class WorkerSocket {
 public:
  WorkerSocket() = default;
  explicit WorkerSocket(int number);
  WorkerSocket(WorkerSocket &&other) noexcept = default;
  WorkerSocket &operator=(WorkerSocket &&other) = delete;
  ~WorkerSocket();

  explicit operator bool() const { return static_cast<bool>(fd_); }
  [[nodiscard]] int get() const { return fd_.get(); }

 private:
  Fd fd_;
};

// A new IPv4 TCP socket of a worker; none (errno set) on failure.
[[nodiscard]] WorkerSocket worker_tcp_socket();

// Main thread: clears `running`, wakes every worker and returns when all have left.
void workers_stop();
