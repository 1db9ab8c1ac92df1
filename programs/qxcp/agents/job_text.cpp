#include "job_text.h"

namespace {

bool is_c_shell(const std::string& shell) {
    return shell.ends_with("csh");
}

// A word for any shell: in single quotes, with quotes inside taken out of them.
std::string quoted(std::string_view word) {
    std::string result = "'";
    for (char c : word) {
        if (c == '\'') {
            result += "'\\''";
        } else {
            result += c;
        }
    }
    return result + "'";
}

std::string messenger_call(const cp_wrap_options& options) {
    return quoted(options.messenger) + " --address " + quoted(options.address) + " --port " +
           std::to_string(options.port) + " --run " + std::to_string(options.run) + " --client " +
           std::to_string(options.client) + " --agent " + quoted(options.agent);
}

}  // namespace

std::string cp_to_crlf(std::string_view text) {
    std::string result;
    result.reserve(text.size() + text.size() / 16 + 2);
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        result += line;
        result += "\r\n";
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return result;
}

std::string cp_shell_of_script(std::string_view script) {
    if (!script.starts_with("#!")) {
        return {};
    }
    std::string_view line = script.substr(2, script.find('\n') - 2);
    auto next_word = [&line]() {
        size_t begin = line.find_first_not_of(" \t\r");
        if (begin == std::string_view::npos) {
            return std::string_view{};
        }
        line.remove_prefix(begin);
        std::string_view word = line.substr(0, line.find_first_of(" \t\r"));
        line.remove_prefix(word.size());
        return word;
    };
    std::string_view program = next_word();
    if (program.ends_with("/env")) {
        program = next_word();
    }
    return std::string{program.substr(program.rfind('/') + 1)};
}

std::string cp_wrap_script(std::string_view script, const cp_wrap_options& options) {
    const std::string call = messenger_call(options);
    std::string text;
    if (is_c_shell(options.shell)) {
        text = call + " start\n" + std::string{script};
        if (!text.ends_with('\n')) {
            text += '\n';
        }
        text += "set qxcp_code = $status\n" + call + " end --retcode $qxcp_code\nexit $qxcp_code\n";
    } else {
        text = "trap 'qxcp_code=$?; trap - 0; " +
               [&call] {
                   std::string inside;  // the call stands inside single quotes
                   for (char c : call) {
                       inside += c == '\'' ? std::string{"'\\''"} : std::string(1, c);
                   }
                   return inside;
               }() +
               " end --retcode $qxcp_code; exit $qxcp_code' 0\n" + call + " start\n" + std::string{script};
    }
    return cp_to_crlf(text);
}
