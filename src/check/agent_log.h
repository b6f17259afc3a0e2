// The agent's log, heard instead of written. Here the name log_message belongs to this program: the
// linker then leaves the agent's own one out, and what the agent says of a failure becomes known.
#pragma once

// Forgets what was heard.
void agent_log_clear();

// The first failure that was heard since, without time and level; empty for none.
[[nodiscard]] const char *agent_failure();

// While one lives, the first failure also clears `running`: the agent asks the balancer until it
// answers, and this program asks once.
class OneAttempt {
 public:
  OneAttempt();
  OneAttempt(const OneAttempt &) = delete;
  OneAttempt &operator=(const OneAttempt &) = delete;
  ~OneAttempt();
};
