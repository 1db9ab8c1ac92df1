// Memory of the compressor: large, zeroed, and taken from the system only where it is touched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

struct ErrMsg;

// A pool of this size means much data: tables that are read all over are then worth large pages.
inline constexpr size_t large_pool = size_t{2} << 20;

// Owns one region. Empty after a failure.
class Memory {
  public:
    Memory() = default;
    Memory(Memory&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          mapped_(other.mapped_) {}
    Memory& operator=(Memory&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(mapped_, other.mapped_);
        return *this;
    }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;
    ~Memory();

    // Takes `size` zeroed bytes. false with number_compress_no_memory and `what` in `err` when there are
    // none.
    bool take(size_t size, const char* what, ErrMsg* err);
    // Asks for large pages, for a table that is read all over.
    void preferLargePages();
    uint8_t* data() const { return data_; }
    template <class T>
    T* as() const {
        return reinterpret_cast<T*>(data_);
    }
    size_t size() const { return size_; }

  private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
    bool mapped_ = false;
};
