// Asks balancer, cloud and cameras as the agent would.
#pragma once

#include <span>

#include "check/streams.h"

// Reports an answer of each. The process context has configuration and cloud ID; unless that is a
// stored one, the balancer is asked for an ID too, which is then thrown away. Nothing is
// registered: the cloud would take the streams of an agent that runs for those of this program.
void ask_everybody(std::span<const CheckedStream> streams, bool stored_id);
