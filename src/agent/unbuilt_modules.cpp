#include "agent/unbuilt_modules.h"

#include "base/context.h"

int FT_Open(EX_PCX*) {
    return 0;
}
int FT_Close(EX_PCX*) {
    return 0;
}
int FTX_Open(EX_PCX*) {
    return 0;
}
int FTX_Close(EX_PCX*) {
    return 0;
}
int FH_Open(EX_PCX*) {
    return 0;
}
int FH_Close(EX_PCX*) {
    return 0;
}

bool unbuilt_modules_busy(const EX_PCX* pcx) {
    return pcx->firstFT != nullptr || pcx->firstFH != nullptr || pcx->firstFhPinf != nullptr ||
           pcx->firstCMD != nullptr;
}
