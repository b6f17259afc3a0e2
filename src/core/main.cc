#include "core/agent.h"

int main(int argc, char **argv) {
  return agent_main(argc, argv);
}
