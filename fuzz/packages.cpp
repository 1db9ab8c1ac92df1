// Start, response and initial packages: any bytes, and packages that are right but for the fields that the
// input fills.
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "security/key_exchange.h"

namespace {

struct store {
    std::string file;
    key_manager keys;
    store() {
        char name[] = "/tmp/fuzz-keys-XXXXXX";
        int fd = mkstemp(name);
        close(fd);
        file = name;
        if (KComInit(&keys, "PROD", "AGENT1", {}, file) != KM_OK) {
            abort();
        }
    }
    ~store() { unlink(file.c_str()); }
    store(const store&) = delete;
    store& operator=(const store&) = delete;
};

void serve(store* agent, const uint8_t* data, size_t size) {
    uint8_t answer[response_package_size];
    char plugin[33], attributes[33];
    size_t length = sizeof answer;
    int number =
        cmdData(&agent->keys, "AGENT1", GSS_CMD_START, data, size, answer, &length, plugin, attributes);
    if (number == KM_OK && length != response_package_size) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static store agent;
    int command = 0;
    bool is_token = false;
    const std::vector<uint8_t> bytes(data, data + size);
    classifyData(bytes.data(), size, &command, &is_token);
    serve(&agent, bytes.data(), size);
    uint8_t key[gss_key_size];
    key_exchange exchange;
    key_exchange_finish(agent.keys, exchange, bytes.data(), size, key);
    initial_package content;
    parse_initial_package(bytes, "", &content);
    parse_initial_package(bytes, "password", &content);

    startpack start;
    size_t part = size < 96 ? size : 96;
    memcpy(start.pKStorePlug, data, part < 32 ? part : 32);
    if (part > 32) {
        memcpy(start.pDHValues, data + 32, part - 32 < 32 ? part - 32 : 32);
    }
    memcpy(start.pExName, "AGENT1", 6);
    start.bEncode = size % 2 != 0;
    uint8_t package[start_package_size];
    buildSPpackage(start, package);
    cryptSPpackage(agent.keys, package);
    serve(&agent, package, sizeof package);
    return 0;
}
