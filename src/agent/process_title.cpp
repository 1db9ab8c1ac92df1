#include "agent/process_title.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

char* title_area = nullptr;
size_t title_size = 0;

// The environment usually stands right behind the arguments, so that a longer title would overwrite it.
void move_environment() {
    size_t count = 0;
    while (environ[count] != nullptr) {
        ++count;
    }
    char** copy = static_cast<char**>(calloc(count + 1, sizeof(char*)));
    if (copy == nullptr) {
        return;  // the title then stays within the arguments
    }
    for (size_t at = 0; at < count; ++at) {
        copy[at] = strdup(environ[at]);
        if (copy[at] == nullptr) {
            return;
        }
    }
    environ = copy;
}

}  // namespace

void process_title_prepare(int argc, char** argv) {
    if (argc < 1 || argv[0] == nullptr || title_area != nullptr) {
        return;
    }
    char* end = argv[0] + strlen(argv[0]) + 1;
    for (int at = 1; at < argc && argv[at] == end; ++at) {
        end += strlen(end) + 1;
    }
    char** old_environment = environ;
    move_environment();
    if (environ != old_environment) {
        for (char** entry = old_environment; *entry != nullptr && *entry == end; ++entry) {
            end += strlen(end) + 1;
        }
    }
    title_area = argv[0];
    title_size = static_cast<size_t>(end - argv[0]);
}

void process_title_set(std::string_view title) {
    const std::string text(title);
    prctl(PR_SET_NAME, text.substr(0, 15).c_str());
    if (title_size < 2) {
        return;
    }
    memset(title_area, 0, title_size);
    memcpy(title_area, text.data(), std::min(text.size(), title_size - 1));
}
