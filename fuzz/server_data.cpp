// What stands in the connection items of a server process, before and after its handshake: the server data
// with the list of its neighbours, the list by itself, the visit card and the shutdown. The first byte
// chooses which, and whether a candidate or the server says it; the second how many candidates the search
// knows. The list of candidates never grows above its room, and the INI file stays one that can be read.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "agent/cp_search.h"
#include "agent/loop.h"
#include "agent/server_connection.h"
#include "agent_side.h"
#include "base/text.h"
#include "input.h"
#include "messages/records_connection.h"

namespace {

constexpr unsigned char items[] = {65, 68, 4, 249};
int next_channel = -1;  // what the next connect gives; those behind it fail

int give_channel(EX_PCX*, const char*, int) {
    const int id = next_channel;
    next_channel = -1;
    return id;
}
int no_choice(EX_PCX*, int) {
    return 0;
}
void nothing_closed(EX_PCX*, int) {}
bool always_alive(EX_PCX*) {
    return true;
}

int make_candidate(EX_PCX* pcx) {
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(pcx->ccm, &channel, nullptr) != 0) {
        abort();
    }
    channel->type = CH_TYPE_CP_CANDIDATE;
    channel->port = 2217;
    copy_text(channel->host, "host");
    const int id = channel->ID;
    ccm_channel_chain(pcx->ccm, channel);
    return id;
}

void start_search(EX_PCX* pcx, int id, uint8_t known) {
    next_channel = id;
    cp_search_outside = {give_channel, no_choice, nothing_closed, always_alive};
    if (cp_search_open(pcx) != 0) {
        abort();
    }
    cp_connection_add(pcx, "host", 2217, 1);
    for (int i = 1; i < known % 80; ++i) {
        cp_connection_add(pcx, "other", 3000 + i, 100 + i);
    }
    cp_connection_connect_next_based_ranking(pcx);
}

// The names first: the record's fields are wide.
message_bytes item_content(byte_source* source, unsigned char key) {
    message_bytes body;
    if (key == 65) {
        SERVER_DATA data;
        memset(&data, ' ', sizeof data);
        put_text(data.cSrvName, source->text());
        const std::string_view system = source->text();
        put_text(data.cSysName, system.empty() ? "FUZZ" : system);
        put_text(data.cConCnt, source->text());
        const auto* bytes = reinterpret_cast<const unsigned char*>(&data);
        body.assign(bytes, bytes + sizeof data);
    }
    const std::string_view rest = source->rest();
    body.insert(body.end(), rest.begin(), rest.end());
    return body;
}

void run(byte_source* source) {
    EX_PCX& pcx = fuzz_agent();
    const uint8_t choice = source->byte();
    const uint8_t known = source->byte();
    const int id = make_candidate(&pcx);
    start_search(&pcx, id, known);
    const unsigned char key = items[choice & 3];
    const message_bytes body = item_content(source, key);
    ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx.ccm, static_cast<int>(body.size()), nullptr);
    memcpy(msg->msg_start, body.data(), body.size());
    msg->type = CCM_MSG_NATIVE;
    msg->protocol_key = key;
    msg->addr.src_ID = id;
    msg->origin = (choice & 4) != 0 ? CCM_FROM_SERVER : CCM_FROM_CANDIDATE;
    fuzz_fence(msg, true);
    process_protocol_message(&pcx, pcx.ccm, msg);
    fuzz_fence(msg, false);
    ccm_msg_free(pcx.ccm, msg);
    if (pcx.nof_cp_connections < 0 || pcx.nof_cp_connections > cp_connection_max) {
        abort();
    }
    if ((choice & 8) != 0) {
        server_connection_established(&pcx, id);
        if (get_main_cp_port(&pcx) != 2217) {
            abort();
        }
    }
    cp_search_end(&pcx, 0);
    pcx.loop = 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_input(data, size, 3, run);
}
