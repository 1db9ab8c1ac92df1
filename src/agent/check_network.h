// What `qxxjlnx check` asks of the network: is the listener's port free, and does a server process answer.
#pragma once

struct EX_PCX;
struct check_report;

// Binds the listener's port and gives it back at once.
void check_port(check_report* report, EX_PCX* pcx);
// Connects to the server process of TCP/IP/cp, says nothing, and waits at most `connwait` seconds.
void check_server(check_report* report, EX_PCX* pcx);
