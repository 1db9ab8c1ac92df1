#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "base/text.h"
#include "request.h"

namespace {

constexpr size_t longest_name = 199;
constexpr size_t longest_value = 1023;
constexpr size_t longest_path = sizeof request::path - 1;

constexpr char help_text[] =
    "Usage: qxxjlnxm --port PORT --run N [--address HOST] [--client N] [--agent NAME] COMMAND\n"
    "\n"
    "Tells the agent on this host about the job that calls it. Called by the text around a job's script.\n"
    "\n"
    "  --address HOST  where the agent's listener is (localhost)\n"
    "  --port PORT     the listener's port\n"
    "  --run N         run number of the job\n"
    "  --client N      client of the job (0)\n"
    "  --agent NAME    name of the agent, for messages\n"
    "  --version       shows the version and does nothing else\n"
    "\n"
    "Commands:\n"
    "  start                              the job starts\n"
    "  end --retcode N                    the job ends with this code\n"
    "  status --text TEXT                 a text of up to 24 characters for the server's view of the job\n"
    "  restart --mark MARK --text TEXT    the place, up to 8 characters, from which the job could be "
    "repeated\n"
    "  variable NAME VALUE [--type C]     registers a variable with the server\n"
    "  file PATH [--login-check C]        registers an output file; Y: only with a login (default), N: "
    "without\n"
    "\n"
    "Exit codes: 0 the agent took it, 1 wrong use, 2 the agent cannot be reached, did not answer within 30\n"
    "seconds or did not take it.\n";

struct command_row {
    const char* name;
    command_kind kind;
    size_t operands;
};

constexpr command_row commands[] = {
    {"start", command_start, 0},     {"end", command_end, 0},           {"status", command_status, 0},
    {"restart", command_restart, 0}, {"variable", command_variable, 2}, {"file", command_file, 1},
    {"", command_none, 0},
};

const command_row& row_of(std::string_view name) {
    const command_row* row = commands;
    while (row->kind != command_none && name != row->name) {
        ++row;
    }
    return *row;
}

[[gnu::format(printf, 1, 2)]] int usage(const char* format, ...) {
    fputs("qxxjlnxm: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputs("; 'qxxjlnxm --help' tells the options\n", stderr);
    return exit_usage;
}

// The options with a number, and what each of them takes.
struct number_row {
    const char* option;
    int64_t low;
    int64_t high;
    const char* wanted;
};

constexpr number_row number_options[] = {
    {"--port", 1, 65535, "a number from 1 to 65535"},
    {"--run", 1, INT_MAX, "a number above 0"},
    {"--client", 0, 65535, "a number from 0 to 65535"},
    {"--retcode", INT_MIN, INT_MAX, "a number"},
    {"", 0, 0, ""},
};

int take_number(request* order, const number_row& row, const char* value) {
    int64_t number = 0;
    if (!parse_number(value, row.low, row.high, &number)) {
        return usage("%s wants %s, not '%s'", row.option, row.wanted, value);
    }
    const std::string_view option = row.option;
    if (option == "--port") {
        order->port = value;
        order->port_number = static_cast<uint16_t>(number);
    } else if (option == "--run") {
        order->run = static_cast<int>(number);
    } else if (option == "--client") {
        order->client = static_cast<uint16_t>(number);
    } else {
        order->retcode = static_cast<int>(number);
        order->has_retcode = true;
    }
    return exit_ok;
}

int take_letter(char* letter, const char* option, const char* value) {
    if (strlen(value) != 1 || value[0] <= ' ' || value[0] == '\'') {
        return usage("%s wants one character, not '%s'", option, value);
    }
    *letter = value[0];
    return exit_ok;
}

int take_option(request* order, std::string_view option, const char* value) {
    for (const number_row* row = number_options; row->option[0] != '\0'; ++row) {
        if (option == row->option) {
            return take_number(order, *row, value);
        }
    }
    if (option == "--address") {
        order->address = value;
    } else if (option == "--agent") {
        order->agent = value;
    } else if (option == "--text") {
        order->text = value;
    } else if (option == "--mark") {
        order->mark = value;
    } else if (option == "--type") {
        return take_letter(&order->type, "--type", value);
    } else if (option == "--login-check") {
        return take_letter(&order->login_check, "--login-check", value);
    } else {
        return usage("'%s' is no option", option.data());
    }
    return exit_ok;
}

bool is_option(const char* word) {
    return strncmp(word, "--", 2) == 0;
}

int take_word(request* order, const char* word) {
    if (order->command != command_none) {
        if (order->operand_count < std::size(order->operands)) {
            order->operands[order->operand_count] = word;
        }
        ++order->operand_count;
        return exit_ok;
    }
    const command_row& row = row_of(word);
    if (row.kind == command_none) {
        return usage("'%s' is no command", word);
    }
    order->command = row.kind;
    order->command_name = row.name;
    return exit_ok;
}

// A relative name is completed here: the agent does not know the job's directory. One that fits nowhere is
// too long for any record as well.
std::string_view absolute(request* order, std::string_view name) {
    char folder[PATH_MAX];
    if (name.empty() || name[0] == '/' || getcwd(folder, sizeof folder) == nullptr) {
        return name;
    }
    const int length = snprintf(order->path, sizeof order->path, "%s/%s", folder, name.data());
    return {order->path, length < 0 ? 0 : static_cast<size_t>(length)};
}

int check_variable(const request& order) {
    if (order.operands[0].empty() || order.operands[0].size() > longest_name) {
        return usage("a variable's name has 1 to %zu characters", longest_name);
    }
    return order.operands[1].size() > longest_value
               ? usage("a variable's value has at most %zu characters", longest_value)
               : exit_ok;
}

int check_file(request* order) {
    order->operands[0] = absolute(order, order->operands[0]);
    return order->operands[0].empty() || order->operands[0].size() > longest_path
               ? usage("a file's name has 1 to %zu characters", longest_path)
               : exit_ok;
}

int check(request* order) {
    if (order->command == command_none) {
        return usage("no command given");
    }
    if (order->port == nullptr || order->run == 0) {
        return usage("%s is missing", order->port == nullptr ? "--port" : "--run");
    }
    const size_t wanted = row_of(order->command_name).operands;
    if (order->operand_count != wanted) {
        return usage("'%s' wants %zu operands, not %zu", order->command_name, wanted, order->operand_count);
    }
    switch (order->command) {
        case command_end:
            return order->has_retcode ? exit_ok : usage("'end' wants --retcode N");
        case command_restart:
            return order->mark.empty() ? usage("'restart' wants --mark MARK") : exit_ok;
        case command_variable:
            return check_variable(*order);
        case command_file:
            return check_file(order);
        default:
            return exit_ok;
    }
}

}  // namespace

// A text that a script hands on as the value of an option or as a word is none, whatever it says.
bool wants_help(int argc, char** argv) {
    bool words = false;
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i) {
        if (strcmp(argv[i], "--help") == 0 || (strcmp(argv[i], "-h") == 0 && !words)) {
            return true;
        }
        const bool option = is_option(argv[i]);
        words = words || !option;
        i += option ? 1 : 0;
    }
    return false;
}

void print_help() {
    fputs(help_text, stdout);
}

// Everything behind "--" is a word, so that values may begin with "--".
int read_arguments(int argc, char** argv, request* order) {
    bool only_words = false;
    for (int i = 1; i < argc; ++i) {
        int result = exit_ok;
        if (!only_words && strcmp(argv[i], "--") == 0) {
            only_words = true;
        } else if (only_words || !is_option(argv[i])) {
            result = take_word(order, argv[i]);
        } else if (i + 1 == argc) {
            result = usage("'%s' wants a value", argv[i]);
        } else {
            result = take_option(order, argv[i], argv[i + 1]);
            ++i;
        }
        if (result != exit_ok) {
            return result;
        }
    }
    return check(order);
}
