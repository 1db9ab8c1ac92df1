// The start message and the server's answer to it. Main thread.
#pragma once

#include <string>

struct EX_PCX;
struct ccm_msg_t;

// Builds EXSTART2 and sends it to the server.
int send_exstart(EX_PCX* pcx);
// The variable list of EXSTART2: names and values, each ended by a zero byte. Adds to `list`; result: the
// number of pairs. A name is cut at 199, a value at 254 bytes.
int CreateExStartVar(EX_PCX* pcx, std::string* list);
// EXSTRTQ2: the server's periods, numbers and tables; from here on the agent is logged in.
int process_exstartq2(EX_PCX* pcx, ccm_msg_t* msg, int row);
