// The contracts of modules that this build does not have: transfers, file events, upgrade. They open and
// close, hold nothing, and have no waiting work; their table rows answer that they are not implemented.
#pragma once

struct EX_PCX;
struct qx7_error;

int FT_Open(EX_PCX* pcx);
int FT_Close(EX_PCX* pcx);
int FTX_Open(EX_PCX* pcx);
int FTX_Close(EX_PCX* pcx);
int FH_Open(EX_PCX* pcx);
int FH_Close(EX_PCX* pcx);

// Whether any transfer, event, event request or command stands in the way of a restart.
bool unbuilt_modules_busy(const EX_PCX* pcx);
