// The clock-driven work, done before each wait for a message. Main thread.
#pragma once

struct EX_PCX;

int maintenance_common(EX_PCX* pcx);
int maintenance_agent(EX_PCX* pcx);
int maintenance_listener(EX_PCX* pcx);
int maintenance_ftx(EX_PCX* pcx);

// Marks each connecting channel deleted whose time is over (message 2000064).
int check_channel_timeout(EX_PCX* pcx);
