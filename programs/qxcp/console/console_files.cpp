// `qxcp cat` and `qxcp shell`: what an agent's host holds and what the agent says of itself.
#include <fcntl.h>
#include <fmt/format.h>
#include <iconv.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "console_line.h"

using nlohmann::json;

namespace {

struct named_encoding {
    const char* name;
    const char* library_name;  // null: bytes as they are
};
constexpr named_encoding encodings[] = {
    {"raw", nullptr}, {"auto", nullptr}, {"utf8", "UTF-8"}, {"ucs2le", "UTF-16LE"}, {"ucs2be", "UTF-16BE"}};

// What the mark at the beginning says; `mark` is its size.
const char* encoding_of(std::string_view text, size_t* mark) {
    constexpr struct {
        std::string_view mark;
        const char* name;
    } rows[] = {{"\xEF\xBB\xBF", "UTF-8"}, {"\xFF\xFE", "UTF-16LE"}, {"\xFE\xFF", "UTF-16BE"}};
    for (const auto& row : rows) {
        if (text.starts_with(row.mark)) {
            *mark = row.mark.size();
            return row.name;
        }
    }
    *mark = 0;
    return nullptr;
}

// To UTF-8; a byte that does not fit becomes "?".
std::string converted(std::string text, const std::string& encoding) {
    if (encoding == "raw") {
        return text;
    }
    size_t mark;
    const char* from = encoding_of(text, &mark);
    text.erase(0, mark);
    for (const named_encoding& row : encodings) {
        if (encoding == row.name && row.library_name != nullptr) {
            from = row.library_name;
        }
    }
    iconv_t handle = from == nullptr ? reinterpret_cast<iconv_t>(-1) : iconv_open("UTF-8", from);
    if (handle == reinterpret_cast<iconv_t>(-1)) {
        return text;
    }
    std::string out;
    char* in = text.data();
    size_t left = text.size();
    char chunk[4096];
    while (left > 0) {
        char* to = chunk;
        size_t room = sizeof chunk;
        const bool stopped =
            iconv(handle, &in, &left, &to, &room) == static_cast<size_t>(-1) && errno != E2BIG;
        out.append(chunk, static_cast<size_t>(to - chunk));
        if (stopped) {
            const size_t unit = std::min<size_t>(std::strcmp(from, "UTF-8") == 0 ? 1 : 2, left);
            out += '?';
            in += unit;
            left -= unit;
        }
    }
    iconv_close(handle);
    return out;
}

std::string read_whole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// As it is, in pieces: a file may be larger than memory.
int copy_out(const std::string& path) {
    FILE* in = std::fopen(path.c_str(), "rbe");
    if (in == nullptr) {
        return console_fail(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
    }
    char chunk[65536];
    size_t n;
    bool good = true;
    while (good && (n = std::fread(chunk, 1, sizeof chunk, in)) > 0) {
        good = std::fwrite(chunk, 1, n, stdout) == n;
    }
    good = std::fflush(stdout) == 0 && good;
    std::fclose(in);
    return good ? 0 : console_fail(fmt::format("cannot write: {}", std::strerror(errno)));
}

int show(const cp_console_options& options, const cp_cat_options& cat, const json& answer) {
    const std::string path = answer.value("path", "");
    if (!options.json && cat.encoding == "raw") {
        return copy_out(path);
    }
    const std::string text = converted(read_whole(path), cat.encoding);
    if (options.json) {
        const json line = {{"agent", cat.agent},
                           {"file", cat.file},
                           {"position", answer.value("position", int64_t{0})},
                           {"bytes", answer.value("bytes", int64_t{0})},
                           {"text", text}};
        fmt::print("{}\n", line.dump(-1, ' ', false, json::error_handler_t::replace));
        return 0;
    }
    const bool good =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    return good ? 0 : console_fail(fmt::format("cannot write: {}", std::strerror(errno)));
}

}  // namespace

int cp_console_cat(const cp_console_options& options, const cp_cat_options& cat) {
    json request = {{"op", "cat"},      {"agent", cat.agent}, {"file", cat.file},
                    {"user", cat.user}, {"limit", cat.bytes}, {"time_limit", cat.seconds}};
    if (cat.tail >= 0 || cat.head >= 0) {
        request["part"] = cat.tail >= 0 ? "tail" : "head";
        request["lines"] = cat.tail >= 0 ? cat.tail : cat.head;
    }
    const std::optional<std::string> password = console_password(cat.password_file);
    if (!password) {
        return console_exit_failure;
    }
    if (!password->empty()) {
        request["password"] = *password;
    }
    int exit_code;
    const std::optional<json> answer = console_ask(options, request, exit_code);
    if (!answer) {
        return exit_code;
    }
    exit_code = show(options, cat, *answer);
    unlink(answer->value("path", "").c_str());  // the server's copy; it makes a new one each time
    return exit_code;
}

int cp_console_shell(const cp_console_options& options, const std::string& agent,
                     const std::string& command) {
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "shell"}, {"agent", agent}, {"command", command}}, exit_code);
    if (answer && options.json) {
        fmt::print("{}\n", answer->dump(-1, ' ', false, json::error_handler_t::replace));
    } else if (answer) {
        fmt::print("{}", answer->value("output", ""));
    }
    return exit_code;
}
