// Bytes from the far end of a channel, through reading, cutting, classifying and the policy into the handlers
// of records. The first byte chooses the channel and how the rest is wrapped, the second where it is split.
#include "channels/ipc.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "channels/connect.h"
#include "channels/handshake.h"
#include "channels/network_thread.h"
#include "channels/policy.h"
#include "log/log.h"
#include "messages/conversion.h"
#include "messages/frame.h"

namespace {

struct side {
    int mode;
    int type;
    const char* name;
};

constexpr side sides[] = {
    {MODE_AGENT, CH_TYPE_IPC, "*IPC(LISTENER)"}, {MODE_AGENT, CH_TYPE_IPC, "*IPC(FTX,1)"},
    {MODE_LISTENER, CH_TYPE_IPC, "*IPC(AGENT)"}, {MODE_FTX, CH_TYPE_IPC, "*IPC(AGENT)"},
    {MODE_LISTENER, CH_TYPE_ACCEPTED, "*ID1"},   {MODE_AGENT, CH_TYPE_CP_CANDIDATE, "*SERVER"},
    {MODE_AGENT, CH_TYPE_AGENT, "PARTNER"},      {MODE_AGENT, CH_TYPE_SERVER, "*SERVER"},
};
constexpr size_t side_count = sizeof sides / sizeof sides[0];

const ipc_function_t functions[] = {
    {"LOGGING", process_ipc_logging},
    {"NATQUITT", process_ipc_natquitt},
    {"GSSHS_REMOTE", process_ipc_gsshs_remote},
    {"EXDATA_REMOTE", process_ipc_exdata_remote},
    {"ROUTENAT", process_ipc_routenat},
    {"PASSFD", process_ipc_passfd},
    {"PASSFD_QUITT", process_ipc_passfd_quitt},
    {"REMOTE_CLOSE", process_ipc_remote_close},
    {"", process_ipc_unknown},
};

EX_PCX& context() {
    static EX_PCX pcx;
    static bool ready = false;
    if (!ready) {
        ready = true;
        GlbPcx = &pcx;
        __log_set_logger(log_dummy);
        strcpy(pcx.exName, "AGENT01");
        strcpy(pcx.sysName, "SYS1");
        pcx.pcx_iGssQop = 3;
        pcx.connwait = 10;
        static msgconv_ctx_t conversion;
        msgconv_open(&conversion, nullptr, nullptr, nullptr, log_dummy, nullptr, 1);
        pcx.pcx_msgctx = &conversion;
        pcx.pcx_hTcpMsg = TcpMsg_Open(tcp_used_by_agent);
        ccm_error_t error;
        ccm_open(&pcx, &pcx.ccm, &error);
    }
    return pcx;
}

int open_side(EX_PCX& pcx, const side& chosen) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        abort();
    }
    int room = 1 << 20;
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    ccm_channel_t* channel = nullptr;
    ccm_channel_new_entry(pcx.ccm, &channel, nullptr);
    channel->s = ends[0];
    channel->type = chosen.type;
    strcpy(channel->name, chosen.name);
    pcx.listener_channel_ID = channel->ID;
    ccm_channel_chain(pcx.ccm, channel);
    return ends[1];
}

// The rest of the input as it is, as an IPC record or as a native body; a record's trailing length is set
// right when asked for, so that the handlers are reached and not only the policy.
std::vector<unsigned char> wrapped(unsigned char how, const uint8_t* data, size_t size) {
    std::vector<unsigned char> frame;
    const char* kinds[] = {nullptr, protocol_ipc, protocol_native, protocol_gss};
    const char* kind = kinds[how & 3];
    if (kind == nullptr) {
        frame.assign(data, data + size);
        return frame;
    }
    frame.resize(frame_header_size);
    frame.insert(frame.end(), data, data + size);
    frame_set_header(frame.data(), kind, static_cast<int64_t>(frame.size()));
    return frame;
}

void handle(EX_PCX& pcx, ccm_msg_t* msg) {
    switch (msg->type) {
        case CCM_MSG_IPC:
            if (msg->origin != CCM_FROM_SELF) {
                process_IPC_message(&pcx, pcx.ccm, msg, functions);
            }
            break;
        case CCM_MSG_GSS:
            process_gss_protocol_message(&pcx, pcx.ccm, msg);
            break;
        default:
            ccm_policy_check(&pcx, pcx.ccm, msg);
            break;
    }
}

void run(EX_PCX& pcx) {
    for (int i = 0; i < 4; ++i) {
        ccm_network_select(pcx.ccm, 0, nullptr);
        ccm_destroy_deleted_channels(pcx.ccm);
        while (!ccm_recvq_empty(pcx.ccm)) {
            ccm_msg_t* msg = nullptr;
            ccm_receive_message(pcx.ccm, 0, &msg, nullptr);
            handle(pcx, msg);
            ccm_msg_free(pcx.ccm, msg);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    EX_PCX& pcx = context();
    const side& chosen = sides[data[0] % side_count];
    pcx.running_mode = chosen.mode;
    int far = open_side(pcx, chosen);
    std::vector<unsigned char> bytes = wrapped(data[0] >> 4, data + 2, size - 2);
    size_t cut = bytes.size() * data[1] / 256;
    for (auto [from, to] : {std::pair{size_t{0}, cut}, std::pair{cut, bytes.size()}}) {
        if (to > from && send(far, bytes.data() + from, to - from, MSG_NOSIGNAL) < 0) {
            break;
        }
        run(pcx);
    }
    close(far);
    run(pcx);
    ccm_msg_emptying_queues(pcx.ccm);
    ccm_channel_closeall(pcx.ccm);
    ccm_msg_emptying_queues(pcx.ccm);
    return 0;
}
