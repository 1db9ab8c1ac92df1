#include "base/memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/notes.h"

namespace {

void trace_memory(const char* what, const void* area, size_t size, const char* label) {
    if (trc_on(TRC_MEMORY)) {
        note_trace("%s %p %zu %s", what, area, size, label == nullptr ? "" : label);
    }
}

}  // namespace

void qx_wipe(void* address, size_t length) {
    if (address != nullptr && length != 0) {
        explicit_bzero(address, length);
    }
}

qx_secret_text::qx_secret_text(std::string_view text) {
    assign(text);
}

qx_secret_text::qx_secret_text(qx_secret_text&& other) noexcept
    : text_(std::exchange(other.text_, nullptr)), size_(std::exchange(other.size_, 0)) {}

qx_secret_text& qx_secret_text::operator=(qx_secret_text&& other) noexcept {
    if (this != &other) {
        clear();
        text_ = std::exchange(other.text_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

bool qx_secret_text::assign(std::string_view text) {
    // The new text may be a part of the old one: it is copied before the old one is wiped.
    char* copy = static_cast<char*>(malloc(text.size() + 1));
    if (copy != nullptr) {
        if (!text.empty()) {
            memcpy(copy, text.data(), text.size());
        }
        copy[text.size()] = '\0';
    }
    clear();
    text_ = copy;
    size_ = copy == nullptr ? 0 : text.size();
    return copy != nullptr;
}

bool qx_secret_text::resize(size_t length) {
    clear();
    text_ = static_cast<char*>(calloc(length + 1, 1));
    size_ = text_ == nullptr ? 0 : length;
    return text_ != nullptr;
}

void qx_secret_text::trim_to_terminator() {
    if (text_ != nullptr) {
        const size_t kept = strnlen(text_, size_);
        qx_wipe(text_ + kept, size_ - kept);
        size_ = kept;
    }
}

void qx_secret_text::clear() {
    if (text_ != nullptr) {
        qx_wipe(text_, size_);
        free(text_);
    }
    text_ = nullptr;
    size_ = 0;
}

bool qx_equal_constant_time(const void* a, const void* b, size_t length) {
    const volatile unsigned char* left = static_cast<const volatile unsigned char*>(a);
    const volatile unsigned char* right = static_cast<const volatile unsigned char*>(b);
    unsigned difference = 0;
    for (size_t i = 0; i < length; ++i) {
        difference |= static_cast<unsigned>(left[i] ^ right[i]);
    }
    return difference == 0;
}

void* MemAllocRetArea(size_t size, const char* label) {
    void* area = calloc(1, size == 0 ? 1 : size);
    trace_memory("alloc", area, size, label);
    return area;
}

int MemAllocToArea(void** area, size_t size, const char* label) {
    *area = MemAllocRetArea(size, label);
    return *area == nullptr ? -1 : 0;
}

void* MemReAllocRetArea(void* area, size_t old_size, size_t new_size, const char* label) {
    char* grown = static_cast<char*>(realloc(area, new_size == 0 ? 1 : new_size));
    if (grown != nullptr && new_size > old_size) {
        memset(grown + old_size, 0, new_size - old_size);
    }
    trace_memory("realloc", grown, new_size, label);
    return grown;
}

void FreeMallocArea(void** area, const char* label) {
    if (area != nullptr && *area != nullptr) {
        trace_memory("free", *area, 0, label);
        free(*area);
        *area = nullptr;
    }
}

void MemCopy(void* to, const void* from, size_t length) {
    if (length != 0) {
        memmove(to, from, length);
    }
}

void* mem_alloc_copy(const void* from, size_t length) {
    char* copy = static_cast<char*>(malloc(length + 1));
    if (copy != nullptr) {
        MemCopy(copy, from, length);
        copy[length] = '\0';
    }
    return copy;
}

void* aligned_malloc(size_t size, size_t alignment) {
    void* area = nullptr;
    if (posix_memalign(&area, std::max(alignment, sizeof(void*)), size == 0 ? 1 : size) != 0) {
        return nullptr;
    }
    memset(area, 0, size);
    return area;
}

void aligned_free(void* area) {
    free(area);
}
