// The texts that the command line prints by itself, outside the log. Main thread.
#pragma once

// The usage text, on standard error.
void print_usage(const char *program_name);

// The version line, on standard output.
void print_version();
