// Who owns the far end of a connection of this host: what the kernel answers by netlink, and its tables in
// the form of text. The first byte chooses. An owner is found only in an answer that is whole and of the
// right kind.
#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "jobs/meld.h"
#include "sandbox.h"

namespace {

constexpr size_t whole_answer = NLMSG_HDRLEN + sizeof(inet_diag_msg);

void take_answer(const uint8_t* data, size_t size) {
    char* copy = static_cast<char*>(malloc(size));
    memcpy(copy, data, size);
    const uid_t uid = meld_uid_from_answer(copy, size);
    nlmsghdr head{};
    memcpy(&head, copy, size < sizeof head ? size : sizeof head);
    free(copy);
    if (uid != meld_unknown_uid && (size < whole_answer || head.nlmsg_type != SOCK_DIAG_BY_FAMILY ||
                                    head.nlmsg_len < whole_answer || head.nlmsg_len > size)) {
        abort();
    }
}

sockaddr_storage end_point(bool v6, uint8_t last, uint16_t port) {
    sockaddr_storage storage{};
    if (v6) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = IN6ADDR_LOOPBACK_INIT;
        address.sin6_port = htons(port);
        memcpy(&storage, &address, sizeof address);
    } else {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(0x7f000000U | last);
        address.sin_port = htons(port);
        memcpy(&storage, &address, sizeof address);
    }
    return storage;
}

void take_table(bool v6, const uint8_t* data, size_t size) {
    static const bool made = std::filesystem::create_directory(sandbox().folder + "/net");
    if (!made) {
        abort();
    }
    for (const char* name : {"/net/tcp", "/net/tcp6"}) {
        std::ofstream(sandbox().folder + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    const std::string folder = sandbox().folder + "/net";
    meld_peer_uid_from_tables(folder.c_str(), end_point(v6, 1, 0x8fc), end_point(v6, 1, 0x1234));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    switch (data[0] % 3) {
        case 0:
            take_answer(data + 1, size - 1);
            break;
        default:
            take_table(data[0] % 3 == 2, data + 1, size - 1);
    }
    return 0;
}
