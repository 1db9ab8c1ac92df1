// What the agent and its starter agree on besides the records.
#pragma once

// As its argument 0 and as its name: 15 characters.
inline constexpr char starter_title[] = "qxxjlnx-starter";
inline constexpr int starter_descriptor = 3;  // of the socket, in the starter
