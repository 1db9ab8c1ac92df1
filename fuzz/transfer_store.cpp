// Any bytes as the file of a status store: it opens or refuses, and what it gives lies inside it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "transfer/kvstore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string name = "/tmp/qx_fuzz_store_" + std::to_string(getpid());
    const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    close(fd);
    kvstore db;
    qx7_error err;
    if (kvstore_open(&db, name.c_str(), kvstore_existing, &err) == 0) {
        std::vector<std::string> keys;
        for (const auto& entry : db.bt_root) {
            keys.push_back(entry.first);
        }
        std::vector<char> value(size + 1);
        for (const std::string& key : keys) {
            size_t len = value.size();
            if (kvstore_get(&db, key, value.data(), &len, &err) < 0 || len > value.size()) {
                abort();
            }
        }
        if (kvstore_put(&db, "new", "value", 5, &err) != 0 || kvstore_delete(&db, "new", &err) != 0 ||
            kvstore_open(&db, name.c_str(), kvstore_existing, &err) != 0) {
            abort();  // what opened once opens again
        }
    }
    unlink(name.c_str());
    return 0;
}
