// Owners of the things a function body may hold: heap texts, open files, descriptors. A failure
// path is a return; what was opened is released by its owner.
#pragma once

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>

struct FreeDeleter {
  void operator()(void *memory) const { free(memory); }
};

// A heap text from the malloc family; empty means none.
using Text = std::unique_ptr<char[], FreeDeleter>;

// Closing preserves errno, here and below, so that a caller can still report why the operation
// before it failed.
struct FileCloser {
  void operator()(FILE *file) const {
    const int saved_errno = errno;
    fclose(file);
    errno = saved_errno;
  }
};

using File = std::unique_ptr<FILE, FileCloser>;

// fopen() with the flags of open(), which knows more of them; `mode` as for fdopen. None (errno
// set) on failure. What it creates, anybody may use, less the process's mask.
[[nodiscard]] File file_open(const char *path, int flags, const char *mode);

// An open descriptor; -1 means none.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int number) : number_(number) {}
  Fd(Fd &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Fd &operator=(Fd &&other) noexcept {
    if (this != &other) {
      close_now();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  ~Fd() { close_now(); }

  explicit operator bool() const { return number_ >= 0; }
  [[nodiscard]] int get() const { return number_; }
  // Gives the descriptor up without closing it.
  [[nodiscard]] int release() { return std::exchange(number_, -1); }

 private:
  void close_now() {
    if (number_ < 0) return;
    const int saved_errno = errno;
    close(number_);
    errno = saved_errno;
  }

  int number_ = -1;
};
