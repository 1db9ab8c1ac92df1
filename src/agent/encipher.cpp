#include "agent/encipher.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/memory.h"
#include "security/string_cipher.h"

namespace {

// What is enciphered has to fit into a line of the INI file.
constexpr size_t longest_text = 100;
// Printable in any code, unlike the two bytes AD; both are read.
constexpr char printable_mark[] = "--";

// Keeps a terminal from showing what is typed. Nothing happens to anything else.
struct hidden_typing {
    int fd;
    termios before{};
    bool hidden = false;

    explicit hidden_typing(int input) : fd(input) {
        if (isatty(fd) == 0 || tcgetattr(fd, &before) != 0) {
            return;
        }
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden = tcsetattr(fd, TCSAFLUSH, &silent) == 0;
    }
    ~hidden_typing() {
        if (hidden) {
            tcsetattr(fd, TCSAFLUSH, &before);  // at the end of the program; nobody could mend a failure
        }
    }
    hidden_typing(const hidden_typing&) = delete;
    hidden_typing& operator=(const hidden_typing&) = delete;
};

using text_buffer = qx_secret<longest_text + 3>;  // line end, one byte too many, NUL

// The line without its end; -1 when there is none.
int read_text(FILE* in, text_buffer* text) {
    setvbuf(in, nullptr, _IONBF, 0);  // no copy of the text stays in a buffer of the library
    auto* line = reinterpret_cast<char*>(text->data());
    if (fgets(line, static_cast<int>(text->size()), in) == nullptr) {
        return -1;
    }
    line[strcspn(line, "\r\n")] = '\0';
    return 0;
}

}  // namespace

int encipher_command(FILE* in, FILE* out, FILE* messages) {
    text_buffer text;
    {
        const hidden_typing hidden(fileno(in));
        if (isatty(fileno(in)) != 0 && !hidden.hidden) {
            fprintf(messages, "encipher: the terminal would show the text: %s\n", strerror(errno));
            return 1;
        }
        if (hidden.hidden) {
            fprintf(messages, "Text to encipher (it is not shown): ");
        }
        const int result = read_text(in, &text);
        if (hidden.hidden) {
            fprintf(messages, "\n");
        }
        if (result != 0) {
            fprintf(messages, "encipher: standard input holds no text\n");
            return 1;
        }
    }
    const auto* plain = reinterpret_cast<const char*>(text.data());
    const size_t length = strlen(plain);
    if (length == 0 || length > longest_text) {
        fprintf(messages, "encipher: the text must have 1 to %zu bytes\n", longest_text);
        return 1;
    }
    char enciphered[EnMaxim_size(longest_text)];
    if (ZUSTRNG_EnMaxim(enciphered, sizeof enciphered, plain) != 0) {
        fprintf(messages, "encipher: the text cannot be enciphered\n");
        return 1;
    }
    memcpy(enciphered, printable_mark, sizeof printable_mark - 1);
    if (fprintf(out, "%s\n", enciphered) < 0 || fflush(out) != 0) {
        fprintf(messages, "encipher: the output cannot be written: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}
