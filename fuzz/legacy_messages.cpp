// What a partner may send in the older protocol: FT_RECV with restart data, FT_DATA, FT_END, FT_QUIT, in any
// order, to an agent that also sends it a file. Each order and each block is answered once, and afterwards
// nothing of it is open.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "agent/loop.h"
#include "agent_side.h"
#include "base/text.h"
#include "channels/internal.h"
#include "messages/records_transfer.h"
#include "transfer/legacy/area.h"
#include "transfer/legacy/module.h"
#include "transfer/legacy/restart_data.h"

namespace {

constexpr char module_name[] = "QXFTEX";
int channel = 0;

void number_only(message_bytes* message) {
    const std::string type(message->begin(), message->begin() + 8);
    const bool block = type == "FT_END  ";
    set_number(message, type.c_str(), block ? "i4transid" : "ah_idnr", fuzz_run);
}

void receiver(message_bytes* message) {
    number_only(message);
    set_field(message, "FT_RECV ", "dst_logininfo", sandbox_user);
    set_field(message, "FT_RECV ", "dst_file", "file");
    set_field(message, "FT_RECV ", "flag", "1");
}

void sender(message_bytes* message) {
    number_only(message);
    set_field(message, "FT_SEND ", "src_logininfo", sandbox_user);
    set_field(message, "FT_SEND ", "src_file", "source");
    set_field(message, "FT_SEND ", "dst_host", "PEER");
    set_field(message, "FT_SEND ", "flag", "1");
}

constexpr fuzz_order recv_order = {module_name, "FT_RECV ", receiver};
constexpr fuzz_order end_order = {module_name, "FT_END  ", number_only};
constexpr fuzz_order quit_order = {module_name, "FT_QUIT ", number_only};
constexpr fuzz_order send_order = {module_name, "FT_SEND ", sender};

int waiting(const EX_PCX& pcx) {
    int count = 0;
    for (const ccm_msg_t* msg = pcx.ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
        ++count;
    }
    return count;
}

void set_version_2(message_bytes* message) {
    memcpy(message->data() + 8, "02", 2);
}

// Restart data whose lengths fit, with the source's numbers and names.
std::string restart_of(byte_source* source) {
    DATA_FT_STP stp;
    const uint8_t choice = source->byte();
    stp.msg_number = (choice & 1) != 0 ? 11471 : 0;
    stp.seek = source->byte();
    stp.records = source->byte();
    stp.transferred = source->byte();
    stp.folder = (choice & 2) != 0 ? std::string(source->text()) : sandbox().folder + "/home";
    stp.file_name = (choice & 4) != 0 ? source->text() : "file";
    stp.temp_name = source->text();
    const std::string part = make_stp_part(stp);
    return make_restart_data(part, part);
}

// Handed to its handler as if it had come over the partner's line. `answered`: how many answers are due, -1
// for any number.
void give(EX_PCX& pcx, const message_bytes& body, int answered) {
    ccm_msg_t* msg = fuzz_receive(module_name, body);
    if (msg == nullptr) {
        return;
    }
    msg->origin = CCM_FROM_PARTNER;
    msg->addr.src_ID = channel;
    copy_text(msg->addr.src_addr, "PEER");
    copy_text(msg->addr.src_name, module_name);
    const int before = waiting(pcx);
    fuzz_fence(msg, true);
    process_NAT_message(&pcx, pcx.ccm, msg);
    fuzz_fence(msg, false);
    ccm_msg_free(pcx.ccm, msg);
    if (answered >= 0 && waiting(pcx) != before + answered) {
        abort();
    }
}

void give_block(EX_PCX& pcx, std::string_view content) {
    auto data = new_message<MSG_TYPE_FT_DATA>(fuzz_client, fuzz_user);
    data.i4transid = fuzz_run;
    message_bytes message(sizeof data);
    memcpy(message.data(), &data, sizeof data);
    message.insert(message.end(), content.begin(), content.end());
    give(pcx, message, 1);
}

void one_message(EX_PCX& pcx, byte_source* source) {
    switch (source->byte() % 6) {
        case 0:
            give(pcx, fuzz_message(source, recv_order), 1);
            break;
        case 1:
            give_block(pcx, source->text());
            break;
        case 2:
            give(pcx, fuzz_message(source, end_order), -1);
            break;
        case 3:
            give(pcx, fuzz_message(source, quit_order), -1);
            break;
        case 4: {
            message_bytes message = fuzz_message(source, send_order);
            fuzz_give(module_name, message);
            break;
        }
        default: {
            const std::string data = restart_of(source);
            message_bytes message = fuzz_message(source, recv_order);
            if (message.size() >= sizeof(MSG_TYPE_FT_RECV)) {
                set_version_2(&message);
                set_field(&message, "FT_RECV ", "flag", "2");
                add_data(&message, "FT_RECV ", "cont", data);
            }
            give(pcx, message, 1);
            break;
        }
    }
}

int lowest_descriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    EX_PCX& pcx = fuzz_agent();
    byte_source source(data, size);
    std::ofstream(sandbox().folder + "/home/source") << "line one\nline two\nlast";
    FT_Open(&pcx, 32256);
    const int before = lowest_descriptor();
    fuzz_begin();
    channel = fuzz_connect_partner(pcx);
    for (int i = 0; i < 20 && source.left() > 0; ++i) {
        one_message(pcx, &source);
    }
    process_ft_stop(&pcx, channel);
    if (!firstFT().empty()) {
        abort();
    }
    FT_Close(&pcx);
    if (lowest_descriptor() != before) {
        abort();
    }
    fuzz_end();
    return 0;
}
