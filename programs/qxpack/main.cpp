// qxpack: packs, unpacks, tests, lists and measures compressed streams.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/context.h"
#include "qxpack.h"

namespace {

constexpr const char* suffix = ".qxp";

constexpr const char* help =
    "usage: qxpack c|d [--id N|--strong] [--records|--framed] [FILE...]\n"
    "       qxpack -t|-l|-b [FILE...]\n"
    "\n"
    "  c              pack FILE into FILE.qxp, or standard input to standard output\n"
    "  d              unpack FILE.qxp into FILE, or standard input to standard output\n"
    "  -t             test streams: unpack them and drop the result\n"
    "  -l             list streams: header, method, sizes, ratio\n"
    "  -b             measure all methods on files, beside gzip, lz4 and zstd where they are installed\n"
    "\n"
    "  --id N         method: 0 none, 1 huffman, 3 rle, 5 lzss, 9 lzp (default), 11 lzx, 127 zlib;\n"
    "                 256 the default, 257 strong mode, 300 to 307 its presets\n"
    "  --strong       try all methods on the start of the input and take the smallest\n"
    "  --records      lines are records of their own\n"
    "  --framed       the input goes in items of up to 65,536 bytes\n"
    "  --store-size   put the size of the input into the header\n"
    "  --set P=N      parameter: hufBlock, lzssWindow, lzssLevel, var, lzpHash, lzpHashTableSize,\n"
    "                 lzpBufferSize, zlibLevel, strongBuf, lzmixBits, lzmixLevel\n"
    "  -o FILE        write there; \"-\" is standard output\n"
    "  -f, --force    replace output files that exist\n"
    "  --help         this text\n"
    "  --version      the version\n";

// Output file in the making, removed when the command is interrupted.
char unfinished[PATH_MAX];

void removeUnfinished(int signal_number) {
    if (unfinished[0] != 0) {
        unlink(unfinished);
    }
    _exit(128 + signal_number);
}

int complain(const std::string& line) {
    fprintf(stderr, "qxpack: %s\n", line.c_str());
    return 1;
}

bool parseNumber(const std::string& text, unsigned* value) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *value);
    return !text.empty() && result.ec == std::errc{} && result.ptr == end;
}

bool setParameter(const std::string& text, CompressParameter* parameters, std::string* why) {
    static constexpr struct {
        const char* name;
        unsigned CompressParameter::*field;
    } fields[] = {
        {"hufBlock", &CompressParameter::hufBlock},
        {"lzssWindow", &CompressParameter::lzssWindow},
        {"lzssLevel", &CompressParameter::lzssLevel},
        {"var", &CompressParameter::var},
        {"lzpHash", &CompressParameter::lzpHash},
        {"lzpHashTableSize", &CompressParameter::lzpHashTableSize},
        {"lzpBufferSize", &CompressParameter::lzpBufferSize},
        {"zlibLevel", &CompressParameter::zlibLevel},
        {"strongBuf", &CompressParameter::strongBuf},
        {"lzmixBits", &CompressParameter::lzmixBits},
        {"lzmixLevel", &CompressParameter::lzmixLevel},
    };
    const size_t equals = text.find('=');
    for (const auto& field : fields) {
        if (text.substr(0, equals) == field.name) {
            if (equals == std::string::npos ||
                !parseNumber(text.substr(equals + 1), &(parameters->*field.field))) {
                *why = "--set " + std::string(field.name) + " needs a number";
                return false;
            }
            return true;
        }
    }
    *why = "no parameter \"" + text.substr(0, equals) + "\"";
    return false;
}

bool parseAction(const std::string& word, PackOptions* options) {
    using Action = PackOptions::Action;
    static constexpr struct {
        const char* word;
        Action action;
    } actions[] = {{"c", Action::compress},
                   {"d", Action::decompress},
                   {"-t", Action::test},
                   {"-l", Action::list},
                   {"-b", Action::measure}};
    for (const auto& row : actions) {
        if (word == row.word) {
            options->action = row.action;
            return true;
        }
    }
    return false;
}

bool parseOptions(const std::vector<std::string>& words, PackOptions* options, std::string* why) {
    bool haveAction = false;
    bool onlyFiles = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        const bool needsValue = word == "--id" || word == "--set" || word == "-o";
        if (needsValue && !onlyFiles && i + 1 == words.size()) {
            *why = word + " needs a value";
            return false;
        }
        if (onlyFiles || word == "-" || (haveAction && !word.starts_with("-"))) {
            options->files.push_back(word);
        } else if (word == "--") {
            onlyFiles = true;
        } else if (parseAction(word, options)) {
            haveAction = true;
        } else if (word == "--id") {
            unsigned id = 0;
            if (!parseNumber(words[++i], &id)) {
                *why = "--id needs a number";
                return false;
            }
            options->id = static_cast<int>(id);
            options->idGiven = true;
        } else if (word == "--set") {
            if (!setParameter(words[++i], &options->parameters, why)) {
                return false;
            }
        } else if (word == "-o") {
            options->output = words[++i];
        } else if (word == "--strong") {
            options->id = compress_strong;
        } else if (word == "--records" || word == "--framed") {
            options->flags |= word == "--records" ? compress_record : compress_framed;
            options->modeGiven = true;
        } else if (word == "--store-size") {
            options->flags |= compress_size;
        } else if (word == "-f" || word == "--force") {
            options->force = true;
        } else {
            *why = "unknown option \"" + word + "\", see qxpack --help";
            return false;
        }
    }
    if (!haveAction) {
        *why = "say c, d, -t, -l or -b, see qxpack --help";
        return false;
    }
    if (!options->output.empty() && options->files.size() > 1) {
        *why = "-o takes one input";
        return false;
    }
    return true;
}

// Where the result of an input goes. Empty `path`: standard output.
bool outputPath(const PackOptions& options, const std::string& input, std::string* path, std::string* why) {
    if (!options.output.empty() || input == "-") {
        *path = options.output == "-" ? "" : options.output;
        return true;
    }
    if (options.action == PackOptions::Action::compress) {
        *path = input + suffix;
        return true;
    }
    if (!input.ends_with(suffix) || input.size() == strlen(suffix)) {
        *why = input + ": has no ending .qxp; say -o FILE";
        return false;
    }
    *path = input.substr(0, input.size() - strlen(suffix));
    return true;
}

struct Input {
    int fd = -1;
    uint64_t size = 0;  // of a plain file, else 0
    mode_t mode = 0666;
};

bool openInput(const std::string& name, Input* input, std::string* why) {
    input->fd = name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat facts {};
    if (input->fd < 0 || fstat(input->fd, &facts) != 0) {
        *why = name + ": " + strerror(errno);
        return false;
    }
    if (S_ISDIR(facts.st_mode)) {
        *why = name + ": is a folder";
        return false;
    }
    if (S_ISREG(facts.st_mode)) {
        input->size = static_cast<uint64_t>(facts.st_size);
        input->mode = facts.st_mode & 0777;
    }
    return true;
}

bool transform(const PackOptions& options, const std::string& name, const Input& input, ByteSink& sink,
               std::string* why) {
    if (options.action == PackOptions::Action::compress) {
        return packStream(input.fd, name, options, sink, input.size, why);
    }
    StreamFacts facts;
    return unpackStream(input.fd, name, options, sink, input.size, &facts, why);
}

// Makes the output under a name of its own and gives it the right one when it is whole.
bool transformToFile(const PackOptions& options, const std::string& name, const Input& input,
                     const std::string& path, std::string* why) {
    struct stat facts {};
    const bool exists = stat(path.c_str(), &facts) == 0;
    if (exists && !S_ISREG(facts.st_mode)) {  // a device or pipe is written in place
        ByteSink sink{open(path.c_str(), O_WRONLY | O_CLOEXEC), path, {}};
        if (sink.fd < 0) {
            *why = path + ": " + strerror(errno);
            return false;
        }
        const bool good = transform(options, name, input, sink, why);
        close(sink.fd);
        return good;
    }
    if (exists && !options.force) {
        *why = path + ": exists; use --force to replace it";
        return false;
    }
    const std::string pattern = path + ".XXXXXX";
    if (pattern.size() >= sizeof unfinished) {
        *why = path + ": name too long";
        return false;
    }
    std::vector<char> making(pattern.begin(), pattern.end());
    making.push_back(0);
    ByteSink sink{mkostemp(making.data(), O_CLOEXEC), path, {}};
    if (sink.fd < 0) {
        *why = path + ": " + strerror(errno);
        return false;
    }
    memcpy(unfinished, making.data(), making.size());
    bool good = transform(options, name, input, sink, why);
    if (good && (fchmod(sink.fd, input.mode) != 0 || close(sink.fd) != 0 ||
                 rename(making.data(), path.c_str()) != 0)) {
        *why = path + ": " + strerror(errno);
        good = false;
    }
    if (!good) {
        unlink(making.data());
    }
    unfinished[0] = 0;
    return good;
}

const char* methodName(int id) {
    switch (id) {
        case compress_none:
            return "none";
        case compress_huffman:
            return "huffman";
        case compress_rle:
            return "rle";
        case compress_lzss:
            return "lzss";
        case compress_lzp:
            return "lzp";
        case compress_lzx:
            return "lzx";
        default:
            return "zlib";
    }
}

void printFacts(const std::string& name, const StreamFacts& facts) {
    const CompressHeader& header = facts.header;
    const CompressParameter& p = header.parameters;
    std::string details;
    switch (header.id) {
        case compress_lzss:
            details = " window=" + std::to_string(p.lzssWindow);
            break;
        case compress_lzp:
            details = " hash=" + std::to_string(p.lzpHash) + " table=" + std::to_string(p.lzpHashTableSize) +
                      " pool=" + std::to_string(p.lzpBufferSize);
            break;
        case compress_lzx:
            details = " bits=" + std::to_string(p.lzmixBits) + " hash=" + std::to_string(p.lzpHash) +
                      " table=" + std::to_string(p.lzpHashTableSize) +
                      " pool=" + std::to_string(p.lzpBufferSize) + " level=" + std::to_string(p.lzmixLevel);
            break;
        default:
            break;
    }
    const bool framed = (header.flags & compress_framed) != 0;
    const bool records = (header.flags & compress_record) != 0;
    printf("%s: flags %02x%s%s%s, id %d %s%s", name.c_str(), static_cast<unsigned>(header.flags),
           records ? " records" : "", framed ? " framed" : "", header.size >= 0 ? " size" : "", header.id,
           methodName(header.id), details.c_str());
    if (records || framed) {
        printf(", %llu %s", static_cast<unsigned long long>(facts.items), framed ? "items" : "records");
    }
    if (facts.controls != 0) {
        printf(" (%llu control)", static_cast<unsigned long long>(facts.controls));
    }
    printf(", %llu -> %llu bytes", static_cast<unsigned long long>(facts.packed),
           static_cast<unsigned long long>(facts.payload));
    if (facts.payload != 0) {
        printf(", %.1f %%", 100.0 * static_cast<double>(facts.packed) / static_cast<double>(facts.payload));
    }
    putchar('\n');
}

bool handle(const PackOptions& options, const std::string& name, std::string* why) {
    Input input;
    bool good = openInput(name, &input, why);
    if (good &&
        (options.action == PackOptions::Action::test || options.action == PackOptions::Action::list)) {
        ByteSink nowhere;
        StreamFacts facts;
        good = unpackStream(input.fd, name, options, nowhere, input.size, &facts, why);
        if (good && options.action == PackOptions::Action::list) {
            printFacts(name, facts);
        }
    } else if (good) {
        std::string path;
        good = outputPath(options, name, &path, why);
        if (good && path.empty()) {
            ByteSink sink{STDOUT_FILENO, "standard output", {}};
            good = transform(options, name, input, sink, why);
        } else if (good) {
            good = transformToFile(options, name, input, path, why);
        }
    }
    if (input.fd >= 0) {
        close(input.fd);
    }
    return good;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    for (const std::string& word : words) {
        if (word == "--help" || word == "-h") {
            fputs(help, stdout);
            return 0;
        }
        if (word == "--version") {
            printf("qxpack %s\n", qx_version);
            return 0;
        }
    }
    PackOptions options;
    std::string why;
    if (!parseOptions(words, &options, &why)) {
        return complain(why);
    }
    struct sigaction action {};
    action.sa_handler = removeUnfinished;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error of write
    if (options.action == PackOptions::Action::measure) {
        return measureFiles(options.files, options.idGiven ? options.id : -1, &why) ? 0 : complain(why);
    }
    if (options.files.empty()) {
        options.files.emplace_back("-");
    }
    int result = 0;
    for (const std::string& name : options.files) {
        if (!handle(options, name, &why)) {
            result = complain(why);
        }
    }
    if (fflush(stdout) != 0) {
        result = complain(std::string("standard output: ") + strerror(errno));
    }
    return result;
}
