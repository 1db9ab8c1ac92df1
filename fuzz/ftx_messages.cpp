// What a partner may say of a transfer. The first byte chooses who listens: the agent, which waits for connections
// and answers orders; a sender's worker, which gets FTXQUIT and FTXENDQ; a receiver's worker, which gets the stream.
// Never more blocks are under way than ordered, counts stay true, and nothing stays open.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "agent/loop.h"
#include "agent_side.h"
#include "base/text.h"
#include "channels/internal.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/orders.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

namespace {

constexpr int most_open = 3;
int channel = 0;

void number_only(message_bytes* message) {
    const std::string type(message->begin(), message->begin() + 8);
    set_number(message, type.c_str(), "ah_idnr", fuzz_run);
}

// An order between this agent and PEER, as the fuzzer need not find it.
void fill_order(message_bytes* message, const char* type, const char* host, const char* connector) {
    set_number(message, type, "ah_idnr", fuzz_run);
    set_field(message, type, "src_logininfo", sandbox_user);
    set_field(message, type, "dst_logininfo", sandbox_user);
    set_field(message, type, "dst_host", host);
    set_field(message, type, "connect_name", connector);
    set_field(message, type, "connect_ip", "127.0.0.1");
    set_number(message, type, "connect_port", 9);
    set_number(message, type, "async_quit_max", most_open);
    set_number(message, type, "async_quit_num", 2);
    for (const char* field : {"erase", "subdir", "wildcard", "file_attributes", "abort_on_error"}) {
        set_field(message, type, field, "N");
    }
    set_field(message, type, "type", "B");
    set_field(message, type, "override", "Y");
    set_field(message, type, "compress", "0");
    set_field(message, type, "restart", "2");
}
void add_names(message_bytes* message, const char* type) {
    add_data(message, type, "src_file", "from/*");
    add_data(message, type, "dst_file", "to/*");
}
void direct(message_bytes* message) {
    fill_order(message, "FTXSEND ", "PEER", "PEER");
    set_field(message, "FTXSEND ", "wildcard", "Y");
    add_names(message, "FTXSEND ");
}
void from_receiver(message_bytes* message) {
    fill_order(message, "FTXSEND ", "PEER", "AGENT1");
    add_names(message, "FTXSEND ");
}
void to_receiver(message_bytes* message) {
    fill_order(message, "FTXRECV ", "AGENT1", "AGENT1");
    set_field(message, "FTXRECV ", "wildcard", "Y");
    add_names(message, "FTXRECV ");
}

constexpr fuzz_order to_agent[] = {
    {ftx_module, "FTXSEND ", from_receiver}, {ftx_module, "FTXRECV ", to_receiver},
    {ftx_module, "FTXRECVQ", number_only},   {ftx_module, "FTXSENDQ", number_only},
    {ftx_module, "FTXDATA ", number_only},   {ftx_module, "FTXQUIT ", number_only},
    {ftx_module, "FTXEND  ", number_only},   {ftx_module, "FTXENDQ ", number_only},
};
constexpr fuzz_order to_sender[] = {{ftx_module, "FTXENDQ ", number_only},
                                    {ftx_module, "FTXRECVQ", number_only}};
constexpr fuzz_order to_receiving[] = {{ftx_module, "FTXEND  ", number_only},
                                       {ftx_module, "FTXSENDQ", number_only}};
constexpr fuzz_order direct_order = {ftx_module, "FTXSEND ", direct};
constexpr fuzz_order receive_order = {ftx_module, "FTXRECV ", to_receiver};

void give(EX_PCX& pcx, const message_bytes& body, int origin = CCM_FROM_PARTNER) {
    ccm_msg_t* msg = fuzz_receive(ftx_module, body);
    if (msg == nullptr) {
        return;
    }
    msg->origin = origin;
    msg->addr.src_ID = channel;
    copy_text(msg->addr.src_addr, "PEER");
    copy_text(msg->addr.src_name, ftx_module);
    fuzz_fence(msg, true);
    process_NAT_message(&pcx, pcx.ccm, msg);
    fuzz_fence(msg, false);
    ccm_msg_free(pcx.ccm, msg);
}

// An entry of the order, in the list, with this process as its worker.
ftx_entry* make_worker(EX_PCX& pcx, const fuzz_order& order, int origin) {
    byte_source nothing(nullptr, 0);
    ccm_msg_t* msg = fuzz_receive(ftx_module, fuzz_message(&nothing, order));
    msg->origin = origin;
    qx7_error err;
    auto entry = CreateFtxEntry(&pcx, msg, &err);
    ccm_msg_free(pcx.ccm, msg);
    if (err.qx_msgnr != 0) {
        abort();
    }
    entry->partnerID = channel;
    entry->ftx_progress = FTX_STARTED;
    pcx.running_mode = MODE_FTX;
    return AddFtxEntry(std::move(entry));
}

// ---- the sender

void put(message_bytes* to, const void* bytes, size_t size) {
    const auto* from = static_cast<const unsigned char*>(bytes);
    to->insert(to->end(), from, from + size);
}

// A FTXQUIT whose records fit, with letters, numbers and texts of the source.
message_bytes quit_of(byte_source* source) {
    auto head = new_message<MSG_TYPE_FTXQUIT>(fuzz_client, fuzz_user);
    head.ah_idnr = fuzz_run;
    const uint8_t choice = source->byte();
    head.flag = choice & 1;
    head.count = (choice >> 1) & 7;
    message_bytes message;
    put(&message, &head, sizeof head);
    for (int i = 0; i < head.count; ++i) {
        MSG_TYPE_FTXQUIT_RECORD record{};
        record.file_id = source->byte() % 8;
        record.status_flag = "WARSCEX?"[source->byte() % 8];
        record.filesize = source->byte();
        record.msl_id = source->byte() - 1;
        const std::string_view parts[] = {source->text(), source->text(), source->text()};
        const auto place = static_cast<int32_t>(message.size() + sizeof record);
        record.msl_dist = place;
        record.msl_len = static_cast<int32_t>(parts[0].size());
        record.dstname_dist = record.msl_dist + record.msl_len;
        record.dstname_len = static_cast<int32_t>(parts[1].size());
        record.res_dist = record.dstname_dist + record.dstname_len;
        record.res_len = static_cast<int32_t>(parts[2].size());
        put(&message, &record, sizeof record);
        for (const std::string_view part : parts) {
            put(&message, part.data(), part.size());
        }
    }
    return message;
}

void check_sender(const ftx_entry* ftx) {
    int states[4] = {};
    for (const auto& [oid, elem] : ftx->elements) {
        const size_t at = std::string_view("WARSCEX").find(elem.ftxe_status);
        if (at == std::string_view::npos || oid != elem.ftxe_oId) {
            abort();
        }
        ++states[at < 3 ? 0 : at < 5 ? at - 2 : 3];
    }
    if (states[0] != ftx->ftx_nof_active || states[1] != ftx->ftx_nof_sent ||
        states[2] != ftx->ftx_nof_completed || states[3] != ftx->ftx_nof_error ||
        ftx->ftx_nof_unquitted > most_open) {
        abort();
    }
}

void run_sender(EX_PCX& pcx, byte_source* source) {
    ftx_entry* ftx = make_worker(pcx, direct_order, CCM_FROM_SERVER);
    qx7_error err;
    ftx->ftx_erase = (source->byte() & 1) != 0 ? 'Y' : 'N';
    ftx->ftx_progress = FTX_BETWEEN_FILES;
    if (ss_saveFTX(ftx, &err) != 0 || ftx_create_filelist(ftx, &err) != 0 ||
        src_openCompress(ftx, &err) != 0) {
        abort();
    }
    ftx_transfer_data(&pcx, ftx);
    for (int i = 0; i < 12 && source->left() > 0; ++i) {
        const uint8_t choice = source->byte();
        if (choice < 200) {
            give(pcx, quit_of(source));
        } else if (choice < 230) {
            message_bytes raw = quit_of(source);
            const std::string_view rest = source->text();
            raw.resize(raw.size() > choice ? raw.size() - choice : sizeof(MSG_TYPE_FTXQUIT));
            put(&raw, rest.data(), rest.size());
            give(pcx, raw);
        } else {
            give(pcx, fuzz_message(source, to_sender[choice & 1]));
        }
        check_sender(ftx);
    }
}

// ---- the receiver

void run_receiver(EX_PCX& pcx, byte_source* source) {
    make_worker(pcx, receive_order, CCM_FROM_PARTNER);
    for (int i = 0; i < 12 && source->left() > 0 && !ftx_entries().empty(); ++i) {
        const uint8_t choice = source->byte();
        if (choice >= 230) {
            give(pcx, fuzz_message(source, to_receiving[choice & 1]));
            continue;
        }
        auto head = new_message<MSG_TYPE_FTXDATA>(fuzz_client, fuzz_user);
        head.ah_idnr = fuzz_run;
        message_bytes block;
        put(&block, &head, sizeof head);
        const std::string_view data = source->text();
        put(&block, data.data(), data.size());
        give(pcx, block);
    }
}

// ---- the agent

void run_agent(EX_PCX& pcx, byte_source* source) {
    sandbox().next_process = (source->byte() & 1) != 0 ? 1 << 23 : 0;
    for (int i = 0; i < 8 && source->left() > 0; ++i) {
        const uint8_t choice = source->byte();
        if (choice >= 240) {
            give(pcx, fuzz_message(source, direct_order), CCM_FROM_SERVER);
        } else {
            give(pcx, fuzz_message(source, to_agent[choice % std::size(to_agent)]));
        }
        if (ftx_entries().size() > 1) {
            abort();  // a connection serves one transfer, and no token opens another one here
        }
    }
    sandbox().next_process = 0;
}

void forget_all(EX_PCX& pcx) {
    ftx_entries().clear();
    ftx_glb().reverse_connect_queue.clear();
    ftx_glb().ftxpq.clear();
    pcx.running_mode = MODE_AGENT;
    pcx.shutdown_timer = 0;
}

void make_sources() {
    const std::string home = sandbox().folder + "/home/";
    std::filesystem::create_directories(home + "from");
    std::ofstream(home + "from/empty");
    std::ofstream(home + "from/small") << "text";
    std::ofstream(home + "from/large") << std::string(110000, 'x');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    EX_PCX& pcx = fuzz_agent();
    byte_source source(data, size);
    make_sources();
    fuzz_begin();
    channel = fuzz_connect_partner(pcx);
    switch (source.byte() % 3) {
        case 0:
            run_agent(pcx, &source);
            break;
        case 1:
            run_sender(pcx, &source);
            break;
        default:
            run_receiver(pcx, &source);
            break;
    }
    forget_all(pcx);
    fuzz_end();
    return 0;
}
