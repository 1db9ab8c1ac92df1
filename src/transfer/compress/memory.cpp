#include "transfer/compress/memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "base/message_numbers.h"
#include "base/sanitizer.h"
#include "transfer/compress/compress.h"
#include "transfer/compress/error.h"

namespace {

// Small regions come from the allocator, so that its checks see their bounds in a sanitizer build.
constexpr size_t map_from = QX_ADDRESS_SANITIZER ? size_t{1} << 20 : size_t{64} << 10;

}  // namespace

Memory::~Memory() {
    if (mapped_) {
        munmap(data_, size_);
    } else {
        free(data_);
    }
}

bool Memory::take(size_t size, const char* what, ErrMsg* err) {
    Memory fresh;
    fresh.size_ = std::max<size_t>(size, 1);
    fresh.mapped_ = fresh.size_ >= map_from;
    if (fresh.mapped_) {
        void* region = mmap(nullptr, fresh.size_, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        fresh.data_ = region == MAP_FAILED ? nullptr : static_cast<uint8_t*>(region);
        fresh.mapped_ = fresh.data_ != nullptr;
    } else {
        fresh.data_ = static_cast<uint8_t*>(calloc(1, fresh.size_));
    }
    if (fresh.data_ == nullptr) {
        compressError(err, number_compress_no_memory, "%d|%s|",
                      static_cast<int>(std::min<size_t>(size, INT_MAX)), what);
        return false;
    }
    *this = std::move(fresh);
    return true;
}

void Memory::preferLargePages() {
    if (mapped_) {
        madvise(data_, size_, MADV_HUGEPAGE);  // only a wish: without large pages all works, a little slower
    }
}
