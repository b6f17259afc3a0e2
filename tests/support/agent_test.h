// The fixture of the unit tests: a fresh process context and the log switched on and captured.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "core/context.h"
#include "core/log.h"
#include "core/workers.h"
#include "monitor/monitor.h"

// Collects what the agent writes to its standard error stream. The descriptor stays as it is, for
// the reports of sanitizers.
class LogCapture {
 public:
  LogCapture() : stream_(open_memstream(&text_, &size_)), before_(stderr) { stderr = stream_; }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;
  ~LogCapture() {
    stderr = before_;
    fclose(stream_);
    free(text_);
  }

  // What came since the last call, as it is.
  std::string take_raw() {
    flockfile(stream_);
    fflush(stream_);
    const std::string all(text_, size_);
    funlockfile(stream_);
    const std::string fresh = all.substr(taken_);
    taken_ = all.size();
    return fresh;
  }

  // The same without the time stamps: lines like "[ERROR] message".
  std::string take() {
    static constexpr size_t STAMP_LENGTH = 22;  // "[%H:%M:%S %m-%d-%Y] "
    const std::string raw = take_raw();
    std::string lines;
    for (size_t at = 0; at < raw.size();) {
      if (raw[at] == '[' && raw.compare(at + STAMP_LENGTH - 2, 3, "] [") == 0) at += STAMP_LENGTH;
      const size_t end = std::min(raw.find('\n', at), raw.size() - 1) + 1;
      lines += raw.substr(at, end - at);
      at = end;
    }
    return lines;
  }

 private:
  char *text_ = nullptr;
  size_t size_ = 0;
  FILE *stream_;
  FILE *before_;
  size_t taken_ = 0;
};

class AgentTest : public testing::Test {
 protected:
  AgentTest() {
    signal(SIGPIPE, SIG_IGN);
    workers_open();
    context_reset();
    proxy_context.running = 1;
    log_enabled = true;
  }
  void TearDown() override {
    if (monitor.stream_count > 0) monitor_cleanup();
  }

  LogCapture log;
};

// A directory that goes with everything in it.
class TempDir {
 public:
  TempDir() { EXPECT_NE(mkdtemp(path_.data()), nullptr); }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] const std::string &path() const { return path_; }
  [[nodiscard]] std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_ = testing::TempDir() + "agent-XXXXXX";
};

inline std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string &path, const std::string &content) {
  std::ofstream(path, std::ios::binary) << content;
}
