// The commands of the service console that do something.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/outgoing.h"
#include "identity/accounts.h"
#include "identity/switch_user.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "services/agent_shell.h"
#include "services/agent_shell_commands.h"

namespace {

constexpr char server_resources[] = "QXVAREXR";
constexpr char own_module[] = "QXEXVAR";
constexpr size_t storage_file_max = 64U << 20;
constexpr int channels_max = 1024;

ccm_msg_t* flush_record(EX_PCX* pcx, const std::string& target) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_trace_flush, sizeof(ipcmsg_trace_flush_t));
    if (msg != nullptr) {
        ipcmsg_trace_flush_t record;
        memcpy(&record, msg->msg_start, sizeof record);
        copy_text(record.filename, target);
        memcpy(msg->msg_start, &record, sizeof record);
    }
    return msg;
}

std::string time_text(const char* format, time_t when) {
    struct tm parts;
    char text[64] = "";
    if (qx_localtime(when, &parts)) {
        strftime(text, sizeof text, format, &parts);
    }
    return text;
}

// One order to store a file: "client,storage_name,ressource_name,overwrite-Y/N,file_path".
struct storage_order {
    int64_t client = 0;
    std::string storage, resource, file;
    char overwrite = 'N';
};

bool read_storage_order(std::string_view text, storage_order* order) {
    std::vector<std::string_view> parts;
    for (int i = 0; i < 4; ++i) {
        const size_t comma = text.find(',');
        if (comma == std::string_view::npos) {
            return false;
        }
        parts.push_back(strip(text.substr(0, comma)));
        text.remove_prefix(comma + 1);
    }
    order->storage = parts[1];
    order->resource = parts[2];
    order->file = strip(text);
    order->overwrite = parts[3].empty() ? ' ' : ToUpperCase(parts[3][0]);
    return parse_number(parts[0], 0, 9999, &order->client) && !order->storage.empty() &&
           !order->resource.empty() && (order->overwrite == 'Y' || order->overwrite == 'N') &&
           parts[3].size() == 1 && order->file.starts_with('/');
}

// The whole file, read as somebody without a login may read it. False with errno.
bool read_storage_file(const std::string& path, std::string* content) {
    const qx_descriptor file(open_read_on_order(path.c_str()));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        return false;
    }
    if (status.st_size > static_cast<off_t>(storage_file_max)) {
        errno = EFBIG;
        return false;
    }
    content->resize(static_cast<size_t>(status.st_size));
    const ssize_t got = readn(file.get(), content->data(), content->size());
    if (got < 0) {
        return false;
    }
    content->resize(static_cast<size_t>(got));
    return true;
}

int send_storage(EX_PCX* pcx, const storage_order& order, const std::string& content) {
    const size_t slash = order.file.rfind('/');
    const std::string name = order.file.substr(slash + 1);
    message_builder<MSG_TYPE_BIN_PUT> put(static_cast<uint16_t>(order.client), 0);
    put_text(put->name, order.storage);
    put_text(put->subname, order.resource);
    put->overwrite = order.overwrite;
    put.add(MSG_TYPE_BIN_PUT::file_name, name);
    put->content_dist = static_cast<int32_t>(put.size());  // of an empty content, too
    put.add(MSG_TYPE_BIN_PUT::content, content);
    return send_built(pcx->ccm, put, to_server(pcx, server_resources, own_module));
}

void set_log_size(const agent_shell_call& call, std::string_view word) {
    int64_t megabytes = 0;
    if (!parse_number(word, 1, 1 << 20, &megabytes)) {
        as_print(call.file, "SIMULATE SETLOGFILESIZE = megabytes");
        return;
    }
    ZULOGG_SetLogFileSize(call.pcx->logHnd, static_cast<unsigned>(megabytes));
    as_print(call.file, "new log file size %d MB", static_cast<int>(megabytes));
}

void set_log_start(const agent_shell_call& call, const std::string& word) {
    int year = 0, month = 0, day = 0;
    const int count = sscanf(word.c_str(), "%d.%d.%d", &year, &month, &day);
    if (count == 3 && day > 31) {
        std::swap(year, day);  // day.month.year, as dates are written where the system comes from
    }
    if (count != 3 || year < 1970 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31) {
        as_print(call.file, "SIMULATE SETLOGFILESTARTTIME = year.month.day");
        return;
    }
    as_print(call.file, "parsed values: year=%d, month=%d, day=%d", year, month, day);
    struct tm parts {};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_isdst = -1;
    const time_t start = qx_mktime(&parts);
    ZULOGG_SetLogFileStartTime(call.pcx->logHnd, start);
    as_print(call.file, "log start time set to %s(%lld)", time_text("%Y-%m-%d %H:%M:%S", start).c_str(),
             static_cast<long long>(start));
}

}  // namespace

void as_setAgentParam(const agent_shell_call& call) {
    constexpr std::string_view name = "euser=";
    if (!call.argument.starts_with(name) || call.argument.size() == name.size()) {
        as_print(call.file, "SET_AGENT_PARAM euser=name");
        return;
    }
    const std::string user(call.argument.substr(name.size()));
    my_passwd_unlimited account;
    qx7_error error;
    if (!GetPwdNameStruct(user.c_str(), &account, &error)) {
        as_print(call.file, "user '%s' is not known", printable(user).c_str());
        return;
    }
    account.pw_passwd.clear();
    effUser_guard lock;
    if (PrepToExUser(&error) == SWITCH_FAILED) {
        __log_error(error);
    }
    // Whoever the agent is afterwards must still be able to send this output. Without rights the switch fails
    // as well, and says so.
    if (call.file != nullptr && fchown(fileno(call.file), account.pw_uid, account.pw_gid) != 0) {
        as_print(call.file, "effective user not changed: %s", error_text(errno).c_str());
        return;
    }
    const int result = PrepToEffUser(user.c_str(), &error);
    if (result == SWITCH_FAILED) {
        as_print(call.file, "effective user not changed: %s", printable(error.qx_msgInsert).c_str());
        qx7_error back;
        if (PrepToExUser(&back) == SWITCH_FAILED) {
            __log_error(back);
        }
        return;
    }
    as_print(call.file, "effective user is %s", printable(user).c_str());
}

void as_trace_flush(const agent_shell_call& call) {
    EX_PCX* pcx = call.pcx;
    std::string target = call.argument;
    if (target.empty()) {
        target =
            std::string(pcx->pcx_TmpFolder) + "/trace_" + time_text("%Y%m%d_%H%M%S", time(nullptr)) + ".txt";
    }
    ccm_msg_t* own = flush_record(pcx, target);
    if (own == nullptr || send_IPC_internal(pcx->ccm, own) != 0) {
        __PutLogText("TRACE_FLUSH could not be sent to the agent itself");
    }
    std::vector<int> ids(channels_max);
    const int count = ccm_channel_collect(pcx->ccm, CH_TYPE_IPC, ids.data(), channels_max);
    for (int i = 0; i < count; ++i) {
        ccm_msg_t* msg = flush_record(pcx, target);
        if (msg != nullptr) {
            ccm_setaddr(msg, ids[static_cast<size_t>(i)], 0, "", "", 0);
        }
        if (msg == nullptr || send_IPC_message(pcx->ccm, msg) != 0) {
            __PutLogText("TRACE_FLUSH could not be sent on connection %d", ids[static_cast<size_t>(i)]);
        }
    }
    as_print(call.file, "%s", printable(target).c_str());
}

void as_destroy_ring_eye_catcher(const agent_shell_call& call) {
    PZUTRACE trace = call.pcx->trcHnd;
    int blocks = 0;
    set_traceLock();
    for (int i = 0; trace != nullptr && i < ring_block_count; ++i) {
        if (trace->rtbs[i].buffer != nullptr) {
            memset(trace->rtbs[i].eyec, 'X', sizeof trace->rtbs[i].eyec);
            ++blocks;
        }
    }
    reset_traceLock();
    as_print(call.file, "%d blocks of the ring trace", blocks);
}

void as_put_bin(const agent_shell_call& call) {
    storage_order order;
    std::string content;
    if (!read_storage_order(call.argument, &order)) {
        as_print(call.file, "PUT_BIN client,storage_name,ressource_name,overwrite-Y/N,file_path");
        return;
    }
    if (!read_storage_file(order.file, &content)) {
        const int number = errno;
        as_print(call.file, "%s: %d - %s", printable(order.file).c_str(), number, error_text(number).c_str());
        return;
    }
    if (send_storage(call.pcx, order, content) != 0) {
        as_print(call.file, "the message could not be sent");
        return;
    }
    as_print(call.file, "%zu bytes of %s sent", content.size(), printable(order.file).c_str());
}

// The words are counted with the command's own, so that the value is the fourth: SIMULATE WHAT = VALUE.
void as_simulate(const agent_shell_call& call) {
    std::vector<std::string_view> words{"SIMULATE"};
    for (const std::string_view word : split_words(call.argument, ' ')) {
        if (!word.empty()) {
            words.push_back(word);
        }
    }
    const std::string_view what = words.size() > 1 ? words[1] : "";
    const std::string value(words.size() > 3 ? words[3] : "");
    if (what == "SETLOGFILESIZE") {
        set_log_size(call, value);
    } else if (what == "SETLOGFILESTARTTIME") {
        set_log_start(call, value);
    } else {
        as_print(call.file, "SIMULATE SETLOGFILESIZE = megabytes");
        as_print(call.file, "SIMULATE SETLOGFILESTARTTIME = year.month.day");
    }
}
