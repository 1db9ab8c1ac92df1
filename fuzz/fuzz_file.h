// The fuzzer's bytes as a file in memory, for readers that take a file name.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

struct fuzz_file {
    int fd;
    char name[64];

    fuzz_file(const uint8_t* data, size_t size) : fd(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
            abort();
        }
        snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
    }
    fuzz_file(const fuzz_file&) = delete;
    fuzz_file& operator=(const fuzz_file&) = delete;
    ~fuzz_file() { close(fd); }
};
