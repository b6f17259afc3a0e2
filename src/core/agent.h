// The life of the agent process: load, start, run until a signal, stop. Main thread.
#pragma once

// The whole of main(): the exit status is 0 after a stop by signal, 1 after any failure to start,
// -h or -V.
[[nodiscard]] int agent_main(int argc, char **argv);
