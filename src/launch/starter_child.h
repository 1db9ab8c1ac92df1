// The way of a child from clone to its program, in the starter's memory. Only the starter.
#pragma once

#include "launch/starter_record.h"

// What one child works with; nobody else touches it until `busy` is 0 again.
struct starter_place {
    starter_job job;
    int output = -1;
    int input = -1;
    int socket = -1;
};

// Tells its process id, goes through the steps and executes the program; it never returns.
int starter_child(void* place);
