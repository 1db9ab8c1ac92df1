// Strong mode: eight candidates compress the start of the source, and the smallest does the work.
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/bucket.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/error.h"
#include "transfer/compress/lzss_search.h"

namespace {

constexpr int candidate_count = 8;
constexpr int trial_read = 32768;
constexpr size_t trial_default = size_t{10} << 20;

struct Candidate {
    CompressParameter parameters{};
    int id = -1;
    std::unique_ptr<CompressFile> file;
    size_t size = 0;
    bool finished = false;
};

int openCandidate(const CompressFile& cf, int index, Candidate* candidate, ErrMsg* err) {
    candidate->id = strongParameters(index, &candidate->parameters);
    candidate->file.reset(new (std::nothrow) CompressFile);
    if (candidate->file == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(CompressFile)),
                             "strong");
    }
    CompressFile& file = *candidate->file;
    file.id = candidate->id;
    file.flags = cf.flags;
    file.parameters = candidate->parameters;
    file.source = cf.source;
    file.source.trial = true;
    return openSender(file, err);
}

// The candidate that was served least lately; candidates are served in turn.
Candidate* getOldest(Candidate* candidates, int* turn) {
    for (int i = 0; i < candidate_count; ++i) {
        Candidate& candidate = candidates[(*turn + i) % candidate_count];
        if (!candidate.finished) {
            *turn = (*turn + i + 1) % candidate_count;
            return &candidate;
        }
    }
    return nullptr;
}

}  // namespace

int findStrongest(CompressFile& cf, int* id, CompressParameter* parameters, ErrMsg* err) {
    // The chain asks the source itself; every reader, the real one too, goes through the chain.
    const std::unique_ptr<Source> real(new (std::nothrow) Source(cf.source));
    std::unique_ptr<char[]> scratch(new (std::nothrow) char[trial_read]);
    if (real == nullptr || scratch == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", trial_read, "strong");
    }
    if (getFileSize(cf.source, err) < 0) {
        return -1;
    }
    SourceChain& chain = cf.chain;
    chain.source = real.get();
    chain.limit = parameters->strongBuf != 0 ? size_t{parameters->strongBuf} << 20 : trial_default;
    cf.source.chain = &chain;

    Candidate candidates[candidate_count];
    for (int i = 0; i < candidate_count; ++i) {
        if (openCandidate(cf, i, &candidates[i], err) < 0) {
            return -1;
        }
    }
    int turn = 0;
    while (Candidate* const candidate = getOldest(candidates, &turn)) {
        const int n = csRead(candidate->file.get(), scratch.get(), trial_read, err);
        if (n < 0) {
            return -1;
        }
        candidate->size += static_cast<size_t>(n);
        if (n < trial_read) {
            candidate->finished = true;
            candidate->file.reset();
        }
    }
    const Candidate* best = &candidates[0];
    for (const Candidate& candidate : candidates) {
        if (candidate.size < best->size) {
            best = &candidate;
        }
    }
    *id = best->id;
    *parameters = best->parameters;
    chain.source = nullptr;  // from here on the chain only empties
    return 0;
}
