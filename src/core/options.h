// The options by which the command line is parsed: the agent's, and whoever looks at its arguments.
#pragma once

#include <getopt.h>

inline constexpr char SHORT_OPTIONS[] = "c:f:s:v:m:dglnp:rVh";

// The order shows: where an abbreviation is ambiguous, the parser's diagnostic lists the candidates
// by it.
inline constexpr option LONG_OPTIONS[] = {
    {"config", required_argument, nullptr, 'c'},
    {"stream", required_argument, nullptr, 's'},
    {"vendor", required_argument, nullptr, 'v'},
    {"model", required_argument, nullptr, 'm'},
    {"debug", no_argument, nullptr, 'd'},
    {"group-streams", no_argument, nullptr, 'g'},
    {"legacy-add", no_argument, nullptr, 'l'},
    {"no-http", no_argument, nullptr, 'n'},
    {"http-port", required_argument, nullptr, 'p'},
    {"require-auth", no_argument, nullptr, 'r'},
    {"version", no_argument, nullptr, 'V'},
    {"help", no_argument, nullptr, 'h'},
    {"status-file", optional_argument, nullptr, 'f'},
    {nullptr, 0, nullptr, 0},
};
