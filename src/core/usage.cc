#include "core/usage.h"

#include <stdio.h>

#include "core/deployment.h"

// -m and -v stand among the optional ones although both are required: the text is part of
// the command line's contract.
static constexpr char OPTION_TEXT[] = R"(Usage: %s [OPTIONS]
Required Options:
  -c, --config=DIR      Configuration directory
  -s, --stream=URL      Stream URL (can be specified multiple times)
                        Use {start-end} as placeholder for channel numbers

Optional Options:
  -d, --debug           Enable debug logging
  -f, --status-file[=PATH] Write cloud connection status to file
  -g, --group-streams   Group streams in pairs
  -m, --model=MODEL     Camera model
  -n, --no-http         Disable http server
  -p, --http-port       Http server port
  -l, --legacy-add      Use legacy Add camera page instead of new one
  -r, --require-auth    Require device credentials for cloud registration
  -v, --vendor=VENDOR   Camera vendor name
  -V, --version         Show version information
  -h, --help            Show this help message

)";

static constexpr char EXAMPLE_TEXT[] =
    "Example:\n"
    "  Basic:    %s -m model -v vendor -c /etc/camera_proxy -s rtsp://192.168.1.64:554/live\n"
    "  Range:    %s -m model -v vendor -c /etc/camera_proxy"
    " -s rtsp://192.168.1.100/cam{1-4}\n"
    "  Grouped (NVR):  %s -m model -v vendor -r -g -c /etc/camera_proxy"
    " -s rtsp://192.168.1.100/cam{1-4} -s rtsp://192.168.1.100/cam{1-4}video\n";

void print_usage(const char *program_name) {
  fprintf(stderr, OPTION_TEXT, program_name);
  fprintf(stderr, EXAMPLE_TEXT, program_name, program_name, program_name);
}

void print_version() {
  printf("Version %s\n", AGENT_VERSION);
}
