// Transfers of files between two agents: orders to their agents, and what these tell of them.
#pragma once

#include <string>

#include "server.h"

// Takes a transfer over (`source`, `destination` and the options filled) and orders it from the agent that
// connects. Its run number, or 0 with `error` filled. Both agents must be logged on.
int cp_order_transfer(cp_server* server, cp_transfer transfer, std::string& error);
// The order of a transfer once more, to go on where it ended: a new run with the options of the old one,
// whose passwords are `again`'s.
int cp_restart_transfer(cp_server* server, int run, const cp_transfer& again, std::string& error);
// The newest transfer between the same two paths, 0 when there is none.
int cp_transfer_between(const cp_server* server, const cp_transfer_place& source,
                        const cp_transfer_place& destination);
cp_transfer* cp_find_transfer(cp_server* server, int run);
// The order to cancel. False with `error` filled when it cannot be sent.
bool cp_cancel_transfer(cp_server* server, int run, std::string& error);
// What a wish says of names: a source that ends with '/' means all that it holds, a destination that does
// takes the source's last name. An empty text, or what is wrong.
std::string cp_complete_paths(cp_transfer& transfer);

// Names that match a mask on an agent's host; one for each line of the answer's data.
bool cp_list_directory(cp_server* server, const std::string& agent, const cp_transfer_place& place,
                       bool with_folders, cp_answer_handler handler);
