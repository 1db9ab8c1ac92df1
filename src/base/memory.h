// Memory: wiping types for secrets, and allocation with zero-filled results.
#pragma once

#include <string.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// Overwrites the bytes in a way that the compiler keeps.
void qx_wipe(void* address, size_t length);

// A secret of fixed size: zero at first, wiped at its end. Copies are wiped as well.
template <size_t N>
struct qx_secret {
    unsigned char bytes[N] = {};

    qx_secret() = default;
    qx_secret(const qx_secret&) = default;
    qx_secret& operator=(const qx_secret&) = default;
    ~qx_secret() { qx_wipe(bytes, N); }

    unsigned char* data() { return bytes; }
    const unsigned char* data() const { return bytes; }
    static constexpr size_t size() { return N; }
    std::span<unsigned char, N> span() { return bytes; }
    std::span<const unsigned char, N> span() const { return bytes; }
    bool is_zero() const {
        unsigned char all = 0;
        for (unsigned char byte : bytes) {
            all = static_cast<unsigned char>(all | byte);
        }
        return all == 0;
    }
};

// A secret of variable length, such as a password: always NUL-terminated, wiped when it changes and at its
// end. It is moved, never copied by accident.
struct qx_secret_text {
    qx_secret_text() = default;
    explicit qx_secret_text(std::string_view text);
    qx_secret_text(qx_secret_text&& other) noexcept;
    qx_secret_text& operator=(qx_secret_text&& other) noexcept;
    qx_secret_text(const qx_secret_text&) = delete;
    qx_secret_text& operator=(const qx_secret_text&) = delete;
    ~qx_secret_text() { clear(); }

    // False when there is no memory; the old value is gone in any case.
    bool assign(std::string_view text);
    // `length` zero bytes to be filled by the caller; false when there is no memory.
    bool resize(size_t length);
    // Cuts the length to what stands before the first NUL.
    void trim_to_terminator();
    void clear();
    const char* c_str() const { return text_ == nullptr ? "" : text_; }
    char* data() { return text_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::string_view view() const { return {c_str(), size_}; }

  private:
    char* text_ = nullptr;
    size_t size_ = 0;
};

// Comparison whose time does not depend on where the bytes differ.
bool qx_equal_constant_time(const void* a, const void* b, size_t length);

// Zero-filled memory for free(); null when there is none. `label` names the caller in the trace of area
// TRC_MEMORY.
void* MemAllocRetArea(size_t size, const char* label);
// 0 and the area in *area, or -1 and null.
int MemAllocToArea(void** area, size_t size, const char* label);
// Grows or shrinks; new bytes are zero. On failure null, and the old area stays.
void* MemReAllocRetArea(void* area, size_t old_size, size_t new_size, const char* label);
// Frees and clears the pointer; null is allowed.
void FreeMallocArea(void** area, const char* label);
void MemCopy(void* to, const void* from, size_t length);
// A copy of `length` bytes with a NUL behind; null when there is no memory.
void* mem_alloc_copy(const void* from, size_t length);
void* aligned_malloc(size_t size, size_t alignment);
void aligned_free(void* area);
