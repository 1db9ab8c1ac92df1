// Parts of the command qxpack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "transfer/compress/compress.h"

struct PackOptions {
    enum class Action { compress, decompress, test, list, measure } action = Action::compress;
    int id = compress_default;
    bool idGiven = false;
    int flags = 0;
    bool modeGiven = false;
    bool force = false;
    CompressParameter parameters{};
    std::string output;  // empty: beside the input, or standard output when there is no file
    std::vector<std::string> files;
};

// What one stream held.
struct StreamFacts {
    CompressHeader header{-1, -1, -1, false, {}};
    uint64_t packed = 0;
    uint64_t payload = 0;
    uint64_t items = 0;     // records or items
    uint64_t controls = 0;  // of them with a control value
};

// A destination of bytes. Writes at `fd`, or nowhere when that is -1.
struct ByteSink {
    int fd = -1;
    std::string name;
    std::string error;  // one line, when a write failed
};

// All return false with one line in `why`.
bool packStream(int from, const std::string& name, const PackOptions& options, ByteSink& sink, uint64_t total,
                std::string* why);
bool unpackStream(int from, const std::string& name, const PackOptions& options, ByteSink& sink,
                  uint64_t total, StreamFacts* facts, std::string* why);
// only  a method to measure alone, -1 for all
bool measureFiles(const std::vector<std::string>& files, int only, std::string* why);

// Text of a compressor error, for an operator.
std::string errorText(const ErrMsg& err);

// Progress on a terminal, quiet anywhere else.
class Progress {
  public:
    Progress(const std::string& name, uint64_t total);
    ~Progress();
    void show(uint64_t done);

  private:
    std::string name_;
    uint64_t total_;
    int shown_ = -1;
};
