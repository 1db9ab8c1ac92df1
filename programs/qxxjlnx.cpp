// The agent. Its listener and its workers are forks that return into the same loop.
#include "agent/entry.h"

int main(int argc, char** argv) {
    return agent_main(argc, argv);
}
