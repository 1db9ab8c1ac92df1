// The way to the agent's listener and back.
#pragma once

#include "message.h"
#include "request.h"

// Sends the frame and waits for the answer, 30 seconds in all. exit_ok when the agent took it, else
// exit_unreachable with one line on standard error.
int tell_agent(const request& order, const message_frame& frame);
