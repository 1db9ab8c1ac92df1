// Owners of a descriptor, a stream and a directory: closed when they go out of scope.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

struct qx_descriptor {
    int fd = -1;

    qx_descriptor() = default;
    explicit qx_descriptor(int descriptor) : fd(descriptor) {}
    qx_descriptor(qx_descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    qx_descriptor& operator=(qx_descriptor&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd, -1));
        }
        return *this;
    }
    qx_descriptor(const qx_descriptor&) = delete;
    qx_descriptor& operator=(const qx_descriptor&) = delete;
    ~qx_descriptor() { reset(); }

    bool valid() const { return fd >= 0; }
    int get() const { return fd; }
    // Gives the descriptor away; the caller closes it.
    int release() { return std::exchange(fd, -1); }
    // Closes what is held and takes the other. errno is kept.
    void reset(int descriptor = -1);
};

struct qx_stream {
    FILE* file = nullptr;

    qx_stream() = default;
    explicit qx_stream(FILE* stream) : file(stream) {}
    qx_stream(qx_stream&& other) noexcept : file(std::exchange(other.file, nullptr)) {}
    qx_stream& operator=(qx_stream&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.file, nullptr));
        }
        return *this;
    }
    qx_stream(const qx_stream&) = delete;
    qx_stream& operator=(const qx_stream&) = delete;
    ~qx_stream() { reset(); }

    bool valid() const { return file != nullptr; }
    FILE* get() const { return file; }
    FILE* release() { return std::exchange(file, nullptr); }
    // Closes without a result; a writer that must know calls fclose(release()).
    void reset(FILE* stream = nullptr);
};

struct qx_directory {
    DIR* dir = nullptr;

    qx_directory() = default;
    explicit qx_directory(DIR* directory) : dir(directory) {}
    qx_directory(const qx_directory&) = delete;
    qx_directory& operator=(const qx_directory&) = delete;
    ~qx_directory() {
        if (dir != nullptr) {
            closedir(dir);
        }
    }
};
