// The texts that the command line prints by itself, outside the log. Main thread.
#pragma once

inline constexpr char AGENT_VERSION[] = "local_build";

// The usage text, on standard error.
void print_usage(const char *program_name);

// The version line, on standard output.
void print_version();
