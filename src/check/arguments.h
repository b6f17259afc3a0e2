// The arguments as they were written, of which the agent's record keeps only what they came to.
#pragma once

#include <array>

#include "core/config.h"

// How often each option was given, by its letter.
struct Given {
  std::array<unsigned char, 128> times;

  [[nodiscard]] bool has(char letter) const {
    return times[static_cast<unsigned char>(letter)] > 0;
  }
};

// Reads the arguments by the agent's table. Both may be called after config_load, whatever came of
// it.
[[nodiscard]] Given given_options(int argc, char **argv);

// Reports arguments that mean something else than they seem to. The record is that of config_load,
// or empty when it refused the arguments.
void check_arguments(int argc, char **argv, const AgentConfig &config);

// What config_load has said of arguments that it refused.
void report_refusal(const char *reason);
