// The agent, and as its listener the same program started anew.
#include "agent/entry.h"

int main(int argc, char** argv) {
    return agent_main(argc, argv);
}
