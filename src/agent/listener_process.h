// The listener's own program: the same executable, started anew by the agent, so that it has neither the
// agent's address layout nor its memory. The unprivileged identity is taken before it starts.
#pragma once

// Takes over what was handed to it (listener_settings.h) and serves until the agent has gone. The exit code.
int listener_main(int argc, char** argv);
