#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

const std::string root = QX_SOURCE_DIR;
const std::string header_path = root + "/src/base/message_numbers.h";

std::string text_of_source(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The end of what begins at `at` and is no code: a comment or a literal; `at` where code stands.
size_t end_of_no_code(const std::string& text, size_t at) {
    if (text.compare(at, 2, "//") == 0) {
        return std::min(text.find('\n', at), text.size());
    }
    const char quote = text[at];
    if (quote != '"' &&
        (quote != '\'' || (at > 0 && std::isalnum(static_cast<unsigned char>(text[at - 1])) != 0))) {
        return at;
    }
    for (++at; at < text.size() && text[at] != quote; ++at) {
        at += text[at] == '\\' ? 1 : 0;
    }
    return at + 1;
}

// Names and numbers of a source, without those in comments and literals.
std::vector<std::string> code_words(const std::string& text) {
    std::vector<std::string> words;
    bool inside = false;
    for (size_t at = 0; at < text.size();) {
        if (const size_t end = end_of_no_code(text, at); end != at) {
            at = end;
            inside = false;
            continue;
        }
        const bool letter = std::isalnum(static_cast<unsigned char>(text[at])) != 0 || text[at] == '_';
        if (letter && !inside) {
            words.emplace_back();
        }
        if (letter) {
            words.back() += text[at];
        }
        inside = letter;
        ++at;
    }
    return words;
}

// Name and number of each constant of the header.
std::map<std::string, int> constants() {
    std::map<std::string, int> found;
    const std::vector<std::string> words = code_words(text_of_source(header_path));
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i].starts_with("number_")) {
            EXPECT_TRUE(found.emplace(words[i], std::stoi(words[i + 1])).second)
                << words[i] << " stands twice";
        }
    }
    return found;
}

// The letters of the languages in which the library has a text, by number.
std::map<int, std::string> languages() {
    std::map<int, std::string> found;
    std::ifstream library(root + "/share/QXX.msl");
    for (std::string line; std::getline(library, line);) {
        found[std::stoi(line.substr(0, 7))] += line[7];
    }
    return found;
}

bool is_number_of(const std::map<int, std::string>& library, const std::string& word) {
    if (word.size() < 4 || word.size() > 7 || word.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const int number = std::stoi(word);
    return library.contains(number) || (number >= 1002000 && number < 1006000) ||
           (number >= 2000000 && number < 2004000);
}

TEST(MessageNumbers, HaveATextInBothLanguagesAndOneName) {
    const std::map<int, std::string> library = languages();
    std::set<int> named;
    for (const auto& [name, number] : constants()) {
        const auto texts = library.find(number);
        EXPECT_TRUE(texts != library.end() && texts->second == "DE") << name;
        EXPECT_TRUE(named.insert(number).second) << number << " has two names";
    }
    EXPECT_GT(named.size(), 200U);
}

TEST(MessageNumbers, StandInTheCodeByNameAndEachIsUsed) {
    const std::map<int, std::string> library = languages();
    std::map<std::string, int> unused = constants();
    for (const char* const folder : {"/src", "/programs"}) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root + folder)) {
            if (!entry.is_regular_file() || entry.path() == header_path) {
                continue;
            }
            for (const std::string& word : code_words(text_of_source(entry.path()))) {
                EXPECT_FALSE(is_number_of(library, word)) << entry.path() << ": " << word;
                unused.erase(word);
            }
        }
    }
    for (const auto& [name, number] : unused) {
        ADD_FAILURE() << name << " is used nowhere";
    }
}

}  // namespace
