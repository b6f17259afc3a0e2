// What the agent would work with, and the files that it would use.
#pragma once

#include "check/arguments.h"
#include "core/config.h"

void show_settings(const AgentConfig &config, const Given &given);

// Reports what is wrong with directory, stored cloud ID, status file and the maker's texts. The
// process context has the configuration, and gets the cloud ID: without a stored one, the longest
// there may be. Asks only: nothing is made or written. False without memory; *stored says whether
// there is an ID.
[[nodiscard]] bool check_files(bool *stored);
