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

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};

using File = std::unique_ptr<FILE, FileCloser>;

// An open descriptor; -1 means none. Closing preserves errno, so that a caller can still report
// why the operation on it failed.
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
