#include "transfer/file_names.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

#include "base/message_numbers.h"

const char* const fsTypes[fs_count] = {"UNIX",  "WINDOWS",   "ZOS", "ZOS_USS", "BS2000",
                                       "OS400", "OS400_IFS", "NSK", "VMS",     "GCOS"};

namespace {

// Path delimiter, two more, and a zero.
struct Delimiters {
    std::atomic<char> path;
    char others[3];
};

Delimiters delimiters[fs_count] = {{'/', {'.', ' ', 0}}, {'\\', {'.', ' ', 0}}, {'.', {'(', ')', 0}},
                                   {'/', {'.', ' ', 0}}, {':', {'$', '(', 0}},  {'/', {'(', ')', 0}},
                                   {'/', {'.', ' ', 0}}, {'/', {'.', ' ', 0}},  {'/', {'.', ' ', 0}},
                                   {'/', {'.', ' ', 0}}};

int fail(ftxerr* err, int number, std::string insert) {
    err->nr = number;
    err->insert = std::move(insert);
    return -1;
}

bool known(int type) {
    return type >= 0 && type < fs_count;
}

bool isWild(char c) {
    return c == '*' || c == '?';
}

char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool sameText(std::string_view a, std::string_view b, bool caseSensitive) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) {
               return caseSensitive ? x == y : upper(x) == upper(y);
           });
}

// Systems whose names are paths of folders.
bool hasFolders(int type) {
    return type == fs_unix || type == fs_windows || type == fs_zos_uss || type == fs_os400_ifs ||
           type == fs_vms;
}

// Length of what stands up to the last delimiter, itself included.
size_t folderLength(std::string_view path, char delimiter) {
    const size_t last = path.rfind(delimiter);
    return last == std::string_view::npos ? 0 : last + 1;
}

std::string inOwnForm(std::string_view text, int type) {
    std::string form = type == fs_vms ? convertVMS2UNIX(text) : std::string(text);
    if (type == fs_windows) {
        std::replace(form.begin(), form.end(), '/', '\\');
    }
    return form;
}

// Result of a destination mask. It stops growing soon above `limit`, as a mask of many wildcards would make
// it much longer than what it is made of.
std::string build(std::string_view mask, const std::vector<insertion>& inserts, std::string_view wcInsert,
                  size_t limit) {
    std::string name;
    for (size_t i = 0; i < mask.size() && name.size() <= limit; ++i) {
        if (mask[i] == '*') {
            name += wcInsert;
        } else if (mask[i] == '&' && i + 1 < mask.size() && mask[i + 1] >= '0' && mask[i + 1] <= '9') {
            const auto number = static_cast<size_t>(mask[++i] - '0');
            if (number >= 1 && number <= inserts.size()) {
                name += inserts[number - 1];
            }
        } else {
            name += mask[i];
        }
    }
    return name;
}

int deliver(std::string name, std::string* out, size_t outSize, ftxerr* err) {
    if (name.size() > outSize) {
        return fail(err, ENAMETOOLONG, name.substr(0, 200) + "|");
    }
    *out = std::move(name);
    return 0;
}

// Parts of the source that the destination is made of.
struct SourceParts {
    std::string mask;     // to evaluate
    std::string subPath;  // below the mask's folder
};

SourceParts splitSource(const std::string& mask, const std::string& file, int type, char delimiter) {
    if (!hasFolders(type)) {
        return {type == fs_gcos ? std::string() : mask, {}};
    }
    const size_t base = folderLength(mask, delimiter);
    const std::string_view below = std::string_view(file).substr(std::min(base, file.size()));
    const std::string subPath(below.substr(0, folderLength(below, delimiter)));
    return {mask.substr(0, base) + subPath + mask.substr(base), subPath};
}

}  // namespace

void fngSetDelimiter(int type, char delimiter) {
    if (known(type)) {
        delimiters[type].path = delimiter;
    }
}

size_t xstrstr(std::string_view hay, std::string_view needle, bool caseSensitive) {
    if (caseSensitive || needle.empty()) {
        return hay.find(needle);
    }
    const auto found = std::search(hay.begin(), hay.end(), needle.begin(), needle.end(),
                                   [](char a, char b) { return upper(a) == upper(b); });
    return found == hay.end() ? std::string_view::npos : static_cast<size_t>(found - hay.begin());
}

int evaluateMaskPart(std::string_view run, std::string_view text, std::vector<insertion>* inserts,
                     ftxerr* err) {
    auto singles = static_cast<size_t>(std::count(run.begin(), run.end(), '?'));
    if (text.size() < singles) {
        return fail(err, number_name_too_short, std::string(run) + "|" + std::string(text));
    }
    size_t at = 0;
    for (const char wild : run) {
        const size_t left = text.size() - at;
        const size_t take = wild == '?' ? 1 : left - singles;
        singles -= wild == '?' ? 1 : 0;
        inserts->emplace_back(text.substr(at, take));
        at += take;
    }
    return 0;
}

int evaluateInserts(std::string_view mask, std::string_view src, bool caseSensitive,
                    std::vector<insertion>* inserts, std::string* wcInsert, ftxerr* err) {
    const auto differs = [&] {
        return fail(err, number_name_differs, std::string(src) + "|" + std::string(mask) + "|");
    };
    inserts->clear();
    wcInsert->clear();
    size_t at = 0;
    size_t wildStart = std::string_view::npos;
    size_t wildEnd = 0;
    for (size_t i = 0; i < mask.size();) {
        if (!isWild(mask[i])) {
            if (at >= src.size() || !sameText(mask.substr(i, 1), src.substr(at, 1), caseSensitive)) {
                return differs();
            }
            ++i;
            ++at;
            continue;
        }
        size_t runEnd = i;
        while (runEnd < mask.size() && isWild(mask[runEnd])) {
            ++runEnd;
        }
        size_t literalEnd = runEnd;
        while (literalEnd < mask.size() && !isWild(mask[literalEnd])) {
            ++literalEnd;
        }
        const std::string_view literal = mask.substr(runEnd, literalEnd - runEnd);
        const std::string_view rest = src.substr(at);
        const size_t length = literal.empty() ? rest.size() : xstrstr(rest, literal, caseSensitive);
        if (length == std::string_view::npos) {
            return differs();
        }
        if (evaluateMaskPart(mask.substr(i, runEnd - i), rest.substr(0, length), inserts, err) != 0) {
            return -1;
        }
        wildStart = std::min(wildStart, at);
        at += length;
        wildEnd = at;
        i = runEnd;
    }
    if (wildStart != std::string_view::npos) {
        wcInsert->assign(src.substr(wildStart, wildEnd - wildStart));
    }
    return 0;
}

int fngConvert(std::string_view srcMask, std::string_view srcFile, std::string_view dstMask, std::string* out,
               size_t outSize, int srcType, int dstType, ftxerr* err) {
    *err = {};
    for (const int type : {srcType, dstType}) {
        if (!known(type)) {
            return fail(err, number_name_type_unknown, "SRC-" + std::to_string(type));
        }
    }
    const char srcDelim = delimiters[srcType].path;
    const char dstDelim = delimiters[dstType].path;
    const std::string mask = inOwnForm(srcMask, srcType);
    const std::string file = inOwnForm(srcFile, srcType);
    std::string target = inOwnForm(dstMask, dstType);

    SourceParts parts = splitSource(mask, file, srcType, srcDelim);
    std::vector<insertion> inserts;
    std::string wcInsert;
    if (evaluateInserts(parts.mask, file, srcType == fs_unix, &inserts, &wcInsert, err) != 0) {
        return -1;
    }
    if (hasFolders(srcType) && !parts.subPath.empty()) {
        std::replace(parts.subPath.begin(), parts.subPath.end(), srcDelim, dstDelim);
    }
    if (hasFolders(dstType)) {
        target.insert(folderLength(target, dstDelim), parts.subPath);
    }
    // In the form of that system ".." is one character.
    const size_t limit = dstType == fs_vms ? 2 * outSize + 1 : outSize;
    std::string name = build(target, inserts, wcInsert, limit);
    return deliver(dstType == fs_vms ? convertUNIX2VMS(name) : std::move(name), out, outSize, err);
}

int fngConvertDirectory(std::string_view srcMask, std::string_view srcPath, std::string_view dstMask,
                        std::string* out, size_t outSize, int srcType, int dstType, ftxerr* err) {
    *err = {};
    for (const int type : {srcType, dstType}) {
        if (!known(type)) {
            fail(err, number_name_type_unknown, "SRC-" + std::to_string(type));
            return err->nr;
        }
        if (type > fs_windows) {
            fail(err, number_name_unsupported, std::string("SRC-") + fsTypes[type]);
            return err->nr;
        }
    }
    const char srcDelim = delimiters[srcType].path;
    const char dstDelim = delimiters[dstType].path;
    const size_t base = folderLength(srcMask, srcDelim);
    std::string name(dstMask.substr(0, folderLength(dstMask, dstDelim)));
    name += srcPath.substr(std::min(base, srcPath.size()));
    std::replace(name.begin(), name.end(), srcDelim, dstDelim);
    return deliver(std::move(name), out, outSize, err) == 0 ? 0 : err->nr;
}

std::string convertVMS2UNIX(std::string_view in) {
    const size_t open = in.find('[');
    const size_t close = in.rfind(']');
    std::string out;
    for (size_t i = 0; i < in.size(); ++i) {
        const bool inside =
            open != std::string_view::npos && close != std::string_view::npos && i > open && i < close;
        if (i == open || i == close) {
            out += '/';
        } else if (in[i] == '[' || in[i] == ']') {
            continue;
        } else if (inside && in[i] == '.') {
            out += '/';
        } else if (inside && in[i] == '-') {
            out += "..";
        } else {
            out += in[i];
        }
    }
    return out;
}

std::string convertUNIX2VMS(std::string_view in) {
    const size_t first = in.find('/');
    const size_t last = in.rfind('/');
    std::string out;
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] == '/') {
            out += i == first ? '[' : i == last ? ']' : '.';
        } else if (in.substr(i, 2) == "..") {
            out += '-';
            ++i;
        } else {
            out += in[i];
        }
    }
    return out;
}
