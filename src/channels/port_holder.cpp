#include "channels/port_holder.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/text.h"

namespace {

constexpr unsigned state_listening = 0x0A;

struct listening_socket {
    unsigned long inode = 0;
    unsigned uid = 0;
};

bool find_listening(const char* table, int port, listening_socket* found) {
    const qx_stream stream(fopen(table, "re"));
    if (!stream.valid()) {
        return false;
    }
    char line[512];
    while (fgets(line, sizeof line, stream.get()) != nullptr) {
        unsigned local = 0;
        unsigned state = 0;
        if (sscanf(line, " %*d: %*[0-9A-Fa-f]:%x %*s %x %*s %*s %*s %u %*u %lu", &local, &state, &found->uid,
                   &found->inode) == 4 &&
            local == static_cast<unsigned>(port) && state == state_listening) {
            return true;
        }
    }
    return false;
}

// Whether one of the process's descriptors is the socket. A process that ends meanwhile, or of another user,
// shows none.
bool holds(const std::string& process, const std::string& wanted) {
    const std::string folder = "/proc/" + process + "/fd";
    const qx_directory list(opendir(folder.c_str()));
    if (list.dir == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(list.dir)) {
        char target[64];
        const ssize_t length = readlinkat(dirfd(list.dir), entry->d_name, target, sizeof target);
        if (length > 0 && std::string_view(target, static_cast<size_t>(length)) == wanted) {
            return true;
        }
    }
    return false;
}

std::string name_of(const std::string& process) {
    const qx_stream stream(fopen(("/proc/" + process + "/comm").c_str(), "re"));
    char name[64] = "";
    if (!stream.valid() || fgets(name, sizeof name, stream.get()) == nullptr) {
        return "?";
    }
    return printable(rstrip(std::string_view(name, strcspn(name, "\n"))));
}

bool find_listening(int port, listening_socket* found) {
    return find_listening("/proc/net/tcp", port, found) || find_listening("/proc/net/tcp6", port, found);
}

// As /proc shows its descriptor.
std::string link_of(const listening_socket& found) {
    return "socket:[" + std::to_string(found.inode) + "]";
}

}  // namespace

bool port_is_held_by(int port, pid_t process) {
    listening_socket found;
    return find_listening(port, &found) && holds(std::to_string(process), link_of(found));
}

std::string port_holder_text(int port) {
    listening_socket found;
    if (!find_listening(port, &found)) {
        return "an unknown process";
    }
    const std::string wanted = link_of(found);
    const qx_directory list(opendir("/proc"));
    while (const dirent* entry = list.dir == nullptr ? nullptr : readdir(list.dir)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 && holds(entry->d_name, wanted)) {
            return "process " + std::string(entry->d_name) + " (" + name_of(entry->d_name) + ")";
        }
    }
    return "a process of user " + std::to_string(found.uid);
}
