// Memory that a burst has left behind goes back to the system once the process is quiet.
#pragma once

// At the start of a process: large blocks always come from the system and go back to it, whatever was freed
// before.
void memory_set_up();
// Gives free memory back when the process has grown since the last time. Cheap when it has not. Main thread,
// in a moment of quiet.
void memory_give_back();
