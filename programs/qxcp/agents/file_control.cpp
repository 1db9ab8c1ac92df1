// Files of an agent's host, fetched block by block for a person, and the login objects that agents ask for.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent_messages.h"
#include "base/base64.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "messages/records_report.h"
#include "messages/records_retrieval.h"
#include "messages/records_server.h"
#include "qxcp/control/control.h"
#include "security/string_cipher.h"

using nlohmann::json;

namespace {

constexpr char module_files[] = "GETFILE";
constexpr char shell_mark[] = "<AGENTSHELL>";
constexpr size_t login_info_size = 200;
constexpr size_t answer_head_size = sizeof(MSG_TYPE_XML_DATA);

std::string request_text(const std::string& key, const cp_file_wish& wish, unsigned user_id) {
    RCV_CD record{};
    put_text(record.cd_requesttype, "GETFILE");
    put_text(record.cd_filename, wish.path);
    put_text(record.cd_loginobject, "LOGIN." + key);
    record.cd_blocksize = wish.block_size;
    record.cd_records = wish.lines;
    record.cd_client = 100;
    record.cd_filetype = wish.part == cp_file_part::bytes ? 'B' : char{FILE_REQUEST_TEXT};
    record.cd_readdirection =
        wish.part == cp_file_part::tail ? char{FILE_REQUEST_END} : char{FILE_REQUEST_BEGIN};
    std::string text = fmt::format(
        "<?xml version=\"1.0\"?><qx-env addr=\"{}\" name=\"{}\" request=\"{}\" session=\"1\" useridnr=\"{}\">"
        "<request name=\"GETFILE\" src=\"qxcp\"><![CDATA[",
        own_address, own_module, key, user_id);
    base64_encode({reinterpret_cast<const char*>(&record), sizeof record}, &text);
    return text + "]]></request></qx-env>";
}

std::string between(std::string_view text, std::string_view from, std::string_view to) {
    const size_t begin = text.find(from);
    const size_t end = begin == std::string_view::npos ? begin : text.find(to, begin + from.size());
    return end == std::string_view::npos
               ? ""
               : std::string(text.substr(begin + from.size(), end - begin - from.size()));
}

std::string without_entities(std::string text) {
    for (const auto& [entity, plain] :
         {std::pair{"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&amp;", "&"}}) {
        for (size_t at = 0; (at = text.find(entity, at)) != std::string::npos; ++at) {
            text.replace(at, std::strlen(entity), plain);
        }
    }
    return text;
}

void end_read(cp_server& server, const std::string& key, cp_answer answer) {
    auto found = server.file_reads.find(key);
    if (found == server.file_reads.end()) {
        return;
    }
    cp_file_read read = std::move(found->second);
    server.file_reads.erase(found);
    qx_wipe(read.wish.password.data(), read.wish.password.size());
    if (std::fclose(read.file) != 0 && answer.status == "OK") {
        answer = {"NK", 0, fmt::format("cannot write '{}': {}", read.wish.copy, std::strerror(errno)), ""};
    }
    if (answer.status != "OK") {
        unlink(read.wish.copy.c_str());
    }
    if (read.handler) {
        read.handler(answer);
    }
}

// The bytes of a block into the copy. An empty text, or what is wrong.
std::string take_block(cp_file_read& read, const std::string& record) {
    MSG_TYPE_XML_DATA head;
    std::memcpy(&head, record.data(), sizeof head);
    const int64_t remaining = head.remaining_bytes;
    const int32_t length = head.datalen;
    read.position = head.pos;
    if (remaining < 0 || length < 0 || static_cast<size_t>(length) != record.size() - answer_head_size) {
        return "the agent sent a block whose sizes contradict each other";
    }
    if (read.remaining >= 0 && read.remaining != remaining + length) {
        return "the agent began anew, as more than its time limit passed between two blocks";
    }
    if (length == 0 && remaining > 0) {
        return "the agent sent an empty block before the end";
    }
    read.remaining = remaining;
    size_t wanted = static_cast<size_t>(length);
    if (read.wish.limit > 0) {
        wanted = std::min<size_t>(wanted, static_cast<size_t>(read.wish.limit - read.written));
    }
    if (std::fwrite(record.data() + answer_head_size, 1, wanted, read.file) != wanted) {
        return fmt::format("cannot write '{}': {}", read.wish.copy, std::strerror(errno));
    }
    read.written += static_cast<int64_t>(wanted);
    return "";
}

const cp_file_read* find_login(const cp_server& server, const cp_agent& agent, std::string_view object) {
    for (const auto& [key, read] : server.file_reads) {
        if (read.agent_id == agent.id && object == "LOGIN." + key) {
            return &read;
        }
    }
    return nullptr;
}

}  // namespace

void cp_take_login_request(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    const auto get = view_record<MSG_TYPE_RES_GET>(view);
    const std::string module = from.src_name[0] != '\0' ? from.src_name : module_files;
    const cp_file_read* read =
        get_text(get.type) == "LOGIN" ? find_login(server, agent, get_text(get.name)) : nullptr;
    if (read == nullptr) {
        auto refusal = new_message<MSG_TYPE_QUITT>(get.header.i2Mandant, get.header.i4UsrIdNr);
        put_text(refusal.quitt, "NK");
        put_text(refusal.msg, "RES_GET");
        refusal.msgnr = number_user_unknown;
        put_text(refusal.msg_insert, fmt::format("{}|", get_text(get.name)));
        cp_send(&server, agent, module, refusal);
        return;
    }
    message_builder<MSG_TYPE_RES_DATA> data(get.header.i2Mandant, get.header.i4UsrIdNr);
    put_text(data->type, "LOGIN");
    put_text(data->name, get_text(get.name));
    std::string content(login_info_size, ' ');
    content.replace(0, std::min(read->wish.user.size(), login_info_size),
                    read->wish.user.substr(0, login_info_size));
    content += build_password_field(static_cast<int>(get.header.i4UsrIdNr), read->wish.password);
    data.add(MSG_TYPE_RES_DATA::content, content);
    cp_send(&server, agent, module, data);
}

bool cp_take_file_answer(cp_server& server, cp_agent& agent, std::string_view text) {
    if (!text.starts_with("<qx-env")) {
        return false;
    }
    const std::string key = between(text, "request=\"", "\"");
    auto found = server.file_reads.find(key);
    if (found == server.file_reads.end() || found->second.agent_id != agent.id) {
        cp_emit(server, "file", agent.link.agent, 0,
                fmt::format("agent {} answers an unknown file request '{}': {}", agent.link.agent,
                            printable(key), without_entities(between(text, "insert=\"", "\""))));
        return true;
    }
    cp_file_read& read = found->second;
    if (cp_control_client* asker = control_find_client(server, read.asker)) {
        asker->last_sign = alarm_now();
    }
    if (text.find("<![CDATA[") == std::string_view::npos) {
        end_read(server, key,
                 {"NK", std::atoi(between(text, "msgnr=\"", "\"").c_str()),
                  without_entities(between(text, "insert=\"", "\"")), ""});
        return true;
    }
    std::string record;
    std::string fault = "the agent sent a block that cannot be read";
    if (base64_decode(between(text, "<![CDATA[", "]]>"), &record) && record.size() >= answer_head_size) {
        fault = take_block(read, record);
    }
    if (!fault.empty()) {
        end_read(server, key, {"NK", 0, fault, ""});
    } else if (read.remaining == 0 || (read.wish.limit > 0 && read.written == read.wish.limit)) {
        const std::string figures = fmt::format("{} {}", read.written, read.position);
        end_read(server, key, {"OK", 0, "", figures});
    } else {
        const std::string next = request_text(key, read.wish, read.user_id);
        cp_send(&server, agent, module_files, built_message(next));
    }
    return true;
}

void cp_end_file_reads(cp_server& server, const cp_agent& agent) {
    std::vector<std::string> keys;
    for (const auto& [key, read] : server.file_reads) {
        if (read.agent_id == agent.id) {
            keys.push_back(key);
        }
    }
    for (const std::string& key : keys) {
        end_read(server, key, {"--", 0, "the connection was lost", ""});
    }
}

void cp_end_unwanted_reads(cp_server& server) {
    std::vector<std::string> keys;
    for (const auto& [key, read] : server.file_reads) {
        if (read.asker != 0 && control_find_client(server, read.asker) == nullptr) {
            keys.push_back(key);
        }
    }
    for (const std::string& key : keys) {
        end_read(server, key, {"NK", 0, "nobody waits for it", ""});
    }
}

bool cp_read_file(cp_server* server, const std::string& agent_name, const cp_file_wish& wish,
                  cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, agent_name);
    FILE* file = agent == nullptr ? nullptr : std::fopen(wish.copy.c_str(), "wbe");
    if (file == nullptr) {
        return false;
    }
    fchmod(fileno(file), 0600);
    const unsigned number = server->next_access_code++;
    const std::string key = fmt::format("QXCP-{}-{}", getpid(), number);
    cp_file_read& read = server->file_reads[key];
    read.agent_id = agent->id;
    read.user_id = number;
    read.asker = wish.asker;
    read.file = file;
    read.wish = wish;
    read.handler = std::move(handler);
    const std::string text = request_text(key, wish, number);
    return cp_send(server, *agent, module_files, built_message(text));
}

bool cp_shell(cp_server* server, const std::string& agent_name, const std::string& command,
              const std::string& copy, cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, agent_name);
    FILE* file = agent == nullptr ? nullptr : std::fopen(copy.c_str(), "wbe");
    if (file == nullptr) {
        return false;
    }
    fchmod(fileno(file), 0600);
    auto order = new_message<MSG_TYPE_REP_GET>(100, 1);
    order.ah_idnr = server->next_request++;
    put_text(order.filename, shell_mark + command);
    put_text(order.rep_type, "REP");
    order.blksize = server->options.block_size;
    cp_report_wish wish;
    wish.path = copy;
    cp_fetch fetch;
    fetch.agent_id = agent->id;
    fetch.file = file;
    fetch.wish = wish;
    fetch.handler = std::move(handler);
    server->fetches[order.ah_idnr] = std::move(fetch);
    return cp_send(server, *agent, module_reports, order);
}

// ---- the console's requests

namespace {

// Why nothing was sent.
std::string not_sent(cp_server& server, const std::string& agent, const std::string& copy) {
    return cp_find_agent(&server, agent) == nullptr
               ? control_no_agent_text(server, agent)
               : fmt::format("nothing was sent to agent {}: is '{}' writable?", agent, copy);
}

std::string whole_file(const std::string& path) {
    std::string text;
    if (FILE* file = std::fopen(path.c_str(), "rbe")) {
        char chunk[65536];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0) {
            text.append(chunk, n);
        }
        std::fclose(file);
    }
    return text;
}

}  // namespace

void cp_control_cat(cp_server& server, cp_control_client& client, const json& request) {
    cp_file_wish wish;
    wish.path = request.value("file", "");
    wish.user = request.value("user", "");
    wish.password = request.value("password", "");
    wish.lines = request.value("lines", 0);
    wish.limit = request.value("limit", int64_t{0});
    wish.asker = client.id;
    const std::string part = request.value("part", "bytes");
    wish.part = part == "tail"   ? cp_file_part::tail
                : part == "head" ? cp_file_part::head
                                 : cp_file_part::bytes;
    wish.copy = control_copy_path(server, client);
    if (wish.path.empty() || wish.path.size() > 511) {
        control_refuse(client, "a file name has 1 to 511 bytes");
        return;
    }
    if (wish.user.empty() || wish.user.size() > login_info_size) {
        control_refuse(client, "a file is read with the rights of a user: name one");
        return;
    }
    const std::string agent = request.value("agent", "");
    const int id = client.id;
    const bool sent = cp_read_file(&server, agent, wish, [&server, id, wish](const cp_answer& answer) {
        cp_control_client* asker = control_find_client(server, id);
        if (asker == nullptr) {
            unlink(wish.copy.c_str());
            return;
        }
        if (answer.status != "OK") {
            const std::string why = answer.number == 0 ? answer.insert : control_answer_text(answer);
            control_refuse(*asker, fmt::format("'{}' was not read as {}: {}", wish.path, wish.user, why));
            return;
        }
        const size_t blank = answer.data.find(' ');
        control_finish(*asker, {{"ok", true},
                                {"path", wish.copy},
                                {"bytes", std::atoll(answer.data.c_str())},
                                {"position", std::atoll(answer.data.c_str() + blank)}});
    });
    if (!sent) {
        control_refuse(client, not_sent(server, agent, wish.copy));
    }
}

void cp_control_shell(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    const std::string command = request.value("command", "");
    const std::string copy = control_copy_path(server, client);
    constexpr size_t longest = sizeof(MSG_TYPE_REP_GET::filename) - sizeof shell_mark + 1;
    if (command.find_first_not_of(' ') == std::string::npos || command.size() > longest) {
        control_refuse(client, fmt::format("a command of the console has 1 to {} characters", longest));
        return;
    }
    const int id = client.id;
    const bool sent =
        cp_shell(&server, agent, command, copy, [&server, id, agent, copy](const cp_answer& answer) {
            const std::string output = whole_file(copy);
            unlink(copy.c_str());
            cp_control_client* asker = control_find_client(server, id);
            if (asker == nullptr) {
                return;
            }
            if (answer.status != "OK") {
                std::string why = control_answer_text(answer);
                // Without consoles the words are the name of a file.
                if (answer.number == number_report_open_failed &&
                    answer.insert.find(shell_mark) != std::string::npos) {
                    why += ". Set allow_agentshell=yes in section GLOBAL of its INI file and start it anew";
                }
                control_refuse(*asker, fmt::format("agent {} did not run the command: {}", agent, why));
                return;
            }
            control_finish(*asker, {{"ok", true}, {"output", output}});
        });
    if (!sent) {
        control_refuse(client, not_sent(server, agent, copy));
    }
}
