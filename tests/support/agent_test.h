// What every unit test needs: a fresh process context, the log switched on and captured, tables.
#pragma once

#include <getopt.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "core/log.h"
#include "core/workers.h"
#include "monitor/monitor.h"
#include "support/fault.h"

// False when it has not become true within that time.
inline bool becomes_true(const std::function<bool()> &condition, int milliseconds = 20'000) {
  for (; !condition() && milliseconds > 0; milliseconds--)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return condition();
}

// Collects what the agent writes to its standard error stream. The descriptor stays as it is, for
// the reports of sanitizers.
class LogCapture {
 public:
  LogCapture() : stream_(open_memstream(&text_, &size_)), before_(stderr) { stderr = stream_; }
  ~LogCapture() {
    stderr = before_;
    fclose(stream_);
    free(text_);
  }

  // What came since the last taking, as it is.
  [[nodiscard]] std::string raw() const {
    flockfile(stream_);
    fflush(stream_);
    std::string fresh(text_ + taken_, size_ - taken_);
    funlockfile(stream_);
    return fresh;
  }
  [[nodiscard]] bool has(const std::string &part) const {
    return raw().find(part) != std::string::npos;
  }

  // The same without the time stamps and the last line feed, once: lines like "[ERROR] message".
  std::string take() {
    static const std::regex stamp(R"((^|\n)\[..:..:.. ..-..-....\] )");
    const std::string fresh = raw();
    taken_ += fresh.size();
    const std::string lines = std::regex_replace(fresh, stamp, "$1");
    return lines.substr(0, lines.find_last_not_of('\n') + 1);
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
    static const bool opened = (workers_open(), signal(SIGPIPE, SIG_IGN) != SIG_ERR);
    context_reset();
    proxy_context.running = log_enabled = opened;
  }
  void TearDown() override {
    workers_stop();
    if (monitor.stream_count > 0) monitor_cleanup();
  }

  LogCapture log;
};

using Row = std::pair<std::string, std::string>;

// The rows of a table: "input -> expected", short ones parted by " | "; a line without an arrow
// goes on with what is expected.
inline std::vector<Row> rows(const std::string &table) {
  std::vector<Row> all;
  std::istringstream lines(std::regex_replace(table, std::regex(" [|] "), "\n"));
  for (std::string line; std::getline(lines, line);) {
    const size_t arrow = line.find(" -> ");
    if (arrow != std::string::npos) {
      all.emplace_back(line.substr(0, arrow), line.substr(arrow + 4));
    } else if (!all.empty()) {
      all.back().second += "\n" + line;
    }
  }
  return all;
}

// The arguments are separated by blanks; "''" is an empty one.
inline bool load_arguments(const std::string &arguments, AgentConfig *config) {
  std::string text = "agent " + arguments;
  std::vector<char *> argv;
  for (char *word = strtok(text.data(), " "); word; word = strtok(nullptr, " "))
    argv.push_back(*word == '\'' ? word + 2 : word);
  const auto count = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  // A process loads once; the parser would go on in the middle of an argument that it refused.
  optind = 0;
  getopt(1, &argv[argv.size() - 2], "");
  return config_load(count, argv.data(), config);
}

// A directory that goes with everything in it.
class TempDir {
 public:
  TempDir() { EXPECT_NE(mkdtemp(path_.data()), nullptr); }
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
