#include "agent_side.h"

#include "base/sanitizer.h"

#if QX_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "agent/loop.h"
#include "agent/settings.h"
#include "base/locks.h"
#include "base/text.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/catalogue.h"
#include "messages/conversion.h"
#include "messages/frame.h"
#include "messages/view.h"

namespace {

constexpr char ini_text[] =
    "[GLOBAL]\nsystem=FUZZ\nname=AGENT1\nhelplib=" QX_SOURCE_DIR
    "/share/QXX.msl\nlogging=../temp/log.l##\nchkstr=1\nallow_agentshell=no\n"
    "[TRACE]\nfile=../temp/trace.t##\n[USERID]\nworker=START\n[STARTCMD]\nstart_type=fork\n"
    "[TCP/IP]\ncp=host:2217\n[VARIABLES]\nQX_EX_JOB_MD=./qxxjlnxm\nQX_EX_PATH_CACHE=../cache\n";

std::string ini_file() {
    return sandbox().folder + "/bin/agent.ini";
}

void write_ini() {
    std::ofstream(ini_file()) << ini_text;
}

struct stat ini_state = {};

// Some orders write to the INI file; the next input finds it as it was.
void restore_ini() {
    struct stat now = {};
    if (stat(ini_file().c_str(), &now) != 0 || now.st_size != ini_state.st_size ||
        now.st_ino != ini_state.st_ino) {
        write_ini();
        stat(ini_file().c_str(), &ini_state);
    }
}

bool handling = false;

// Errors of the walk while no message is being received are about what the agent itself sends.
void watch_log(int number, const char*) {
    constexpr int first = 1002401;
    constexpr int last = 1002413;
    constexpr int array_too_long = 1005415;
    if (handling && ((number >= first && number <= last) || number == array_too_long)) {
        abort();
    }
}

void die(const char* what) {
    fprintf(stderr, "%s\n", what);
    abort();
}

EX_PCX* make_agent() {
    const std::string& folder = sandbox().folder;
    for (const char* name : {"/bin", "/home", "/work"}) {
        std::filesystem::create_directory(folder + name);
    }
    restore_ini();
    std::ofstream(folder + "/bin/qxxjlnx") << "program";
    std::ofstream(folder + "/bin/qxxjlnxm") << "program";
    // Lines of text would fill the fuzzer's own output.
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        die("no /dev/null");
    }
    __log_set_logger(log_dummy);
    init_logLock();
    init_traceLock();
    init_effUserLock();
    qx7_error error;
    EX_PCX* pcx = PcxInit(ini_file().c_str(), (folder + "/bin/qxxjlnx").c_str(), &error);
    if (pcx == nullptr || error.qx_msgnr != 0) {
        die(error.qx_msgInsert);
    }
    if (ccm_open(pcx, &pcx->ccm, nullptr) != 0) {
        die("ccm_open");
    }
    pcx->loop = LOOP_RUNNING;
    __log_set_logger(watch_log);
    return pcx;
}

void connect_server(EX_PCX* pcx) {
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(pcx->ccm, &channel, nullptr) != 0) {
        die("no channel");
    }
    channel->type = CH_TYPE_SERVER;
    channel->flag |= CH_FLAG_SEALED;
    copy_text(channel->name, ccm_name_server);
    ccm_channel_chain(pcx->ccm, channel);
    pcx->pcx_flag |= PCX_FLAG_SERVER_CHANNEL;
}

// ---- fields of a message

struct field {
    std::string name;
    size_t offset;
    size_t size;
    bool text;
};

void collect_fields(const msgtab_el* definition, size_t* offset, std::vector<field>* fields) {
    for (uint64_t i = 0; i < definition->msg_def.length; ++i) {
        const msg_el& element = definition->msg_def.elements[i];
        if (element.relation != 0 || element.dim != 0 || element.size < 0) {
            continue;
        }
        if (element.type == el_struct) {
            if (const msgtab_el* inner = element_structure(get_msgtab(), &element)) {
                collect_fields(inner, offset, fields);
            }
            continue;
        }
        const bool text = element.type == el_text_padded || element.type == el_text_sized;
        fields->push_back({element.name, *offset, static_cast<size_t>(element.size), text});
        *offset += static_cast<size_t>(element.size);
    }
}

const msgtab_el* definition_of(const char* type) {
    const msgtab_el* definition = find_definition(get_msgtab(), std::string_view(type, strnlen(type, 8)));
    if (definition == nullptr) {
        die(type);
    }
    return definition;
}

const std::vector<field>& fields_of(const char* type) {
    static std::vector<std::pair<std::string, std::vector<field>>> known;
    for (const auto& entry : known) {
        if (entry.first == type) {
            return entry.second;
        }
    }
    size_t offset = sizeof(QX_HEADM);
    std::vector<field> fields;
    collect_fields(definition_of(type), &offset, &fields);
    known.emplace_back(type, std::move(fields));
    return known.back().second;
}

const field* find_field(const char* type, const std::string& name) {
    for (const field& entry : fields_of(type)) {
        if (entry.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

void fill(message_bytes* message, const field& at, std::string_view text) {
    if (at.offset + at.size > message->size()) {
        return;
    }
    unsigned char* place = message->data() + at.offset;
    memset(place, at.text ? ' ' : 0, at.size);
    memcpy(place, text.data(), std::min(at.size, text.size()));
}

void fill_number(message_bytes* message, const field& at, int64_t number) {
    fill(message, at,
         std::string_view(reinterpret_cast<const char*>(&number), std::min(at.size, sizeof number)));
}

constexpr std::string_view dist_end = "_dist";

int highest_version(const msgtab_el* definition) {
    int version = 1;
    for (uint64_t i = 0; i < definition->msg_def.length; ++i) {
        version = std::max<int>(version, definition->msg_def.elements[i].version);
    }
    return version;
}

message_bytes blank_message(const char* type, int version) {
    const msgtab_el* definition = definition_of(type);
    message_bytes message(static_cast<size_t>(definition->msg_len));
    blank_fixed_part(std::string_view(definition->name, strcspn(definition->name, " ")), message.data(),
                     message.size());
    QX_HEADM head;
    CreateQxHeadm(&head, type, fuzz_client, fuzz_user);
    set_message_version(&head, version);
    memcpy(message.data(), &head, sizeof head);
    return message;
}

void take_item(byte_source* source, const char* type, message_bytes* message) {
    const uint8_t name = source->byte();
    const std::string_view text = source->text();
    const std::vector<field>& fields = fields_of(type);
    const field& at = fields[(name & 0x7f) % fields.size()];
    if ((name & 0x80) != 0 && at.name.ends_with(dist_end)) {
        add_data(message, type, at.name.substr(0, at.name.size() - dist_end.size()).c_str(), text);
    } else {
        fill(message, at, text);
    }
}

}  // namespace

std::string_view byte_source::take(size_t size) {
    const size_t length = std::min(size, left());
    const std::string_view text(reinterpret_cast<const char*>(at), length);
    at += length;
    return text;
}

std::string_view byte_source::text() {
    size_t length = byte();
    if (length == 255) {
        length = byte();
        length |= static_cast<size_t>(byte()) << 8;
    }
    return take(length);
}

EX_PCX& fuzz_agent() {
    static EX_PCX* pcx = make_agent();
    return *pcx;
}

void set_field(message_bytes* message, const char* type, const char* name, std::string_view text) {
    const field* at = find_field(type, name);
    if (at == nullptr) {
        die(name);
    }
    fill(message, *at, text);
}

void set_number(message_bytes* message, const char* type, const char* name, int64_t number) {
    const field* at = find_field(type, name);
    if (at == nullptr) {
        die(name);
    }
    fill_number(message, *at, number);
}

void add_data(message_bytes* message, const char* type, const char* prefix, std::string_view data) {
    const field* dist = find_field(type, std::string(prefix) + "_dist");
    const field* length = find_field(type, std::string(prefix) + "_len");
    const field* entries = find_field(type, std::string(prefix) + "_entries");
    if (dist == nullptr) {
        die(prefix);
    }
    fill_number(message, *dist, static_cast<int64_t>(message->size()));
    if (length != nullptr) {
        fill_number(message, *length, static_cast<int64_t>(data.size()));
    }
    if (entries != nullptr) {
        fill_number(message, *entries, 1);
    }
    message->insert(message->end(), data.begin(), data.end());
}

int fuzz_connect_partner(EX_PCX& pcx) {
    ccm_channel_t* made = nullptr;
    if (ccm_channel_new_entry(pcx.ccm, &made, nullptr) != 0) {
        abort();
    }
    made->type = CH_TYPE_AGENT;
    made->flag |= CH_FLAG_SEALED;
    copy_text(made->name, "PEER");
    const int id = made->ID;
    ccm_channel_chain(pcx.ccm, made);
    return id;
}

message_bytes fuzz_message(byte_source* source, const fuzz_order& order) {
    const uint8_t flags = source->byte();
    const int version = (flags & 4) != 0 ? 1 : highest_version(definition_of(order.type));
    message_bytes message = blank_message(order.type, version);
    if ((flags & 1) != 0) {
        const std::string_view rest = source->rest();
        message.resize(sizeof(QX_HEADM));
        message.insert(message.end(), rest.begin(), rest.end());
        return message;
    }
    if (order.preset != nullptr) {
        order.preset(&message);
    }
    for (uint8_t count = source->byte(); count > 0 && source->left() > 0; --count) {
        take_item(source, order.type, &message);
    }
    if ((flags & 2) != 0) {
        const size_t low = source->byte();
        const size_t length = low | static_cast<size_t>(source->byte()) << 8;
        message.resize(std::min(message.size(), std::max(length, sizeof(QX_HEADM))));
    }
    return message;
}

ccm_msg_t* fuzz_receive(const char* module, const message_bytes& body) {
    EX_PCX& pcx = fuzz_agent();
    ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx.ccm, static_cast<int>(body.size()), nullptr);
    if (msg == nullptr) {
        return nullptr;
    }
    memcpy(msg->msg_start, body.data(), body.size());
    msg->type = CCM_MSG_NAT;
    msg->origin = CCM_FROM_SERVER;
    msg->flag |= CCM_MSG_FLAG_CAME_SEALED;
    ccm_setaddr(msg, 1, 0, "", module, 0);
    ccm_setback(msg, ccm_name_server, "JPEXEC_R", 55);
    if (msgconv_ToHost(msg->msg_start, body.size(), pcx.pcx_msgctx) != 0) {
        ccm_msg_free(pcx.ccm, msg);
        return nullptr;
    }
    return msg;
}

void fuzz_fence(const ccm_msg_t* msg, bool closed) {
#if QX_ADDRESS_SANITIZER
    const unsigned char* behind = msg->msg_start + msg->len;
    const unsigned char* end = msg->buffer1 + ccm_msg_headroom + msg->size + ccm_msg_tailroom;
    const size_t size = static_cast<size_t>(end - behind);
    closed ? __asan_poison_memory_region(behind, size) : __asan_unpoison_memory_region(behind, size);
#else
    (void)msg;
    (void)closed;
#endif
}

bool fuzz_give(const char* module, const message_bytes& body) {
    EX_PCX& pcx = fuzz_agent();
    ccm_msg_t* msg = fuzz_receive(module, body);
    if (msg == nullptr) {
        return false;
    }
    handling = true;
    fuzz_fence(msg, true);
    process_NAT_message(&pcx, pcx.ccm, msg);
    fuzz_fence(msg, false);
    handling = false;
    ccm_msg_free(pcx.ccm, msg);
    return true;
}

std::vector<std::string> fuzz_answers() {
    std::vector<std::string> types;
    for (const ccm_msg_t* msg = fuzz_agent().ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
        frame_body items;
        const unsigned char* body = msg->msg_start + frame_header_size;
        const size_t length = static_cast<size_t>(msg->len) - frame_header_size;
        if (msg->type == CCM_MSG_NAT && frame_parse_body(body, length, &items, nullptr) == 0) {
            types.emplace_back(reinterpret_cast<const char*>(body) + items.offset,
                               std::min<size_t>(8, items.length));
        }
    }
    return types;
}

void fuzz_begin() {
    connect_server(&fuzz_agent());
    sandbox_close();
}

void fuzz_end() {
    EX_PCX& pcx = fuzz_agent();
    sandbox_open();
    ccm_msg_emptying_queues(pcx.ccm);
    ccm_channel_closeall(pcx.ccm);
    ccm_msg_emptying_queues(pcx.ccm);
    restore_ini();
    std::error_code ignored;
    for (const char* name : {"/home", "/work", "/out", "/cache"}) {
        const std::string folder = sandbox().folder + name;
        if (!std::filesystem::is_empty(folder, ignored)) {
            std::filesystem::remove_all(folder, ignored);
            std::filesystem::create_directory(folder, ignored);
        }
    }
}
