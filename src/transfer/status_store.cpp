#include "transfer/status_store.h"

#include <cstdio>

std::string ss_elementKey(int oid, const char* part) {
    return "OID-" + std::to_string(oid) + part;
}

std::string ss_reportKey(uint32_t id, int logNumber) {
    char text[40];
    snprintf(text, sizeof text, "RPT%.10u-%.8d", id, logNumber);
    return text;
}

std::string ss_getVersionText() {
    char text[96];
    snprintf(text, sizeof text, "VERSION(%lu),FTX_SIZE(%ld),FTXE_SIZE(%ld)", status_store_version,
             status_store_ftx_size, static_cast<long>(sizeof(__ftx_elem)));
    return text;
}

bool ss_checkVersionText(const std::string& found) {
    return found == ss_getVersionText();
}
