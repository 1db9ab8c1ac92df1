#include "agent/server_connection.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agent/logon.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/handshake.h"
#include "channels/messages.h"
#include "channels/network_thread.h"
#include "channels/outgoing.h"
#include "channels/replies.h"
#include "channels/resolver.h"
#include "log/log.h"
#include "messages/frame.h"
#include "messages/records_connection.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "security/key_store.h"

namespace {

constexpr char variables_module[] = "QXVAREXR";
constexpr char own_module[] = "QXEXVAR";
constexpr size_t key_list_max = 512;  // bytes of key names of section CP_LIST that are looked at
constexpr int unanswered_limit = 2;
constexpr int wait_after_silence = 30;
constexpr size_t named_list_max = 8192;  // the elements that count fit well

// Lists that candidates named, by channel. The one of the candidate that becomes the server is written to the
// INI file, the others are forgotten: whoever answers a connect could name anything.
std::map<int, std::string> named_lists;

// When the server must have answered the start message of the standing connection.
time_t logon_limit = 0;

struct endpoint {
    char host[256];
    int port;
    bool given;  // there was a text, usable or not
};

// "host:port" cut at the last colon; port 0 when there is none.
endpoint split_endpoint(const char* text) {
    endpoint end = {};
    end.given = *text != '\0';
    const char* colon = strrchr(text, ':');
    if (colon == nullptr) {
        return end;
    }
    copy_text(end.host, std::string_view(text, static_cast<size_t>(colon - text)));
    end.port = atoi(colon + 1);
    return end;
}

endpoint main_cp(EX_PCX* pcx) {
    char text[512];
    pcx->getProfileString(pcx, "TCP/IP", "cp", "", text, sizeof text);
    EatString(text);
    return split_endpoint(text);
}

// The list is copied before values are read: both share one buffer in the profile layer.
std::vector<std::string> listed_ports(EX_PCX* pcx) {
    std::vector<char> keys(65536);
    pcx->getProfileString(pcx, "CP_LIST", "", "", keys.data(), keys.size());
    std::vector<std::string> ports;
    for (const char* key = keys.data(); *key != '\0'; key += strlen(key) + 1) {
        if (static_cast<size_t>(key - keys.data()) + strlen(key) >= key_list_max) {
            break;
        }
        ports.emplace_back(key);
    }
    return ports;
}

void add_listed(EX_PCX* pcx) {
    for (const std::string& key : listed_ports(pcx)) {
        char host[512];
        pcx->getProfileString(pcx, "CP_LIST", key.c_str(), "", host, sizeof host);
        int64_t port = 0;
        if (parse_number(key, 1, 65535, &port) &&
            cp_connection_get_by_port(pcx, static_cast<int>(port)) == nullptr) {
            cp_connection_add(pcx, host, static_cast<int>(port), cp_random_ranking());
        }
    }
}

struct list_writer {
    EX_PCX* pcx;
    int main_port;
};

void write_listed(void* context, const char* host, int port) {
    const list_writer* writer = static_cast<const list_writer*>(context);
    if (port == writer->main_port) {
        return;
    }
    const std::string key = std::to_string(port);
    char known[512];
    writer->pcx->getProfileString(writer->pcx, "CP_LIST", key.c_str(), "", known, sizeof known);
    if (strcmp(known, host) != 0) {
        writer->pcx->putProfileString(writer->pcx, "CP_LIST", key.c_str(), host);
    }
}

void write_cp_list(EX_PCX* pcx, const std::string& list) {
    list_writer writer = {pcx, get_main_cp_port(pcx)};
    cp_list_each(list.data(), list.size(), write_listed, &writer);
}

std::string trimmed(const char* field, size_t size) {
    return std::string(strip(get_text(field, size)));
}

// Copies a name into the channel; false when the channel has gone.
bool name_channel(EX_PCX* pcx, int channel_id, const std::string& name, int ranking) {
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, channel_id);
    if (channel == nullptr) {
        return false;
    }
    copy_text(channel->name, name);
    channel->nof_connection = ranking;
    channel->connect_timeout = 0;
    ccm_channel_unlock(pcx->ccm);
    return true;
}

void log_unknown_candidate(const ccm_channel_image_t& channel) {
    __log(-1,
          "something went wrong, CPC not found "
          "(channel(name=%-20s,chID=%d,s=%d,type=%.8X,flag=%.8X,%s,host=%s(%s),"
          "port=%d,sendq=%p))",
          channel.name, channel.ID, channel.s, static_cast<unsigned>(channel.type),
          static_cast<unsigned>(channel.flag), channel.bind_addr, channel.host, channel.addr, channel.port,
          static_cast<void*>(nullptr));
}

// What a card says, of whatever length above its flag byte.
struct card_content {
    std::string name;
    int port;
};

card_content read_card(const ccm_msg_t* msg) {
    executor_data card;
    memset(&card, ' ', sizeof card);
    memcpy(&card, msg->msg_start, std::min(sizeof card, static_cast<size_t>(msg->len < 0 ? 0 : msg->len)));
    return {trimmed(card.name, sizeof card.name), static_cast<int>(card.ipPort)};
}

}  // namespace

int get_main_cp_port(EX_PCX* pcx) {
    return main_cp(pcx).port;
}

int server_connection_start(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    named_lists.clear();
    resolver_own_host();  // begins the look-up that the logon wants
    cp_search_open(pcx);
    pcx->unquitted_srvqry = 0;
    __log(number_server_search, "%s", pcx->sysName);
    const endpoint primary = main_cp(pcx);
    if (cp_connection_add(pcx, primary.host, primary.port, cp_random_ranking()) != 0 && primary.given) {
        __log(-1,
              "setting 'cp' in section [TCP/IP] names no server process: write a host of at most 63 "
              "characters, \":\" and a port");
    }
    add_listed(pcx);
    const int configured = pcx->nof_cp_connections;
    pcx->Srv_alarm_time = alarm_now() + pcx->Per_Reconnect;
    cp_connection_connect_next_based_ranking(pcx);
    return configured;
}

int process_server_data(EX_PCX* pcx, ccm_msg_t* msg) {
    if ((pcx->pcx_flag & PCX_FLAG_CP_SEARCH) == 0 || msg->len < static_cast<int>(sizeof(SERVER_DATA))) {
        return -1;
    }
    const int id = msg->addr.src_ID;
    SERVER_DATA data;
    memcpy(&data, msg->msg_start, sizeof data);
    const std::string name = trimmed(data.cSrvName, sizeof data.cSrvName);
    const std::string system = trimmed(data.cSysName, sizeof data.cSysName);
    const int ranking = atoi(std::string(data.cConCnt, sizeof data.cConCnt).c_str());
    ccm_channel_image_t channel;
    if (ccm_channel_copy(pcx->ccm, id, &channel) != 0) {
        return -1;
    }
    if (!ccm_name_acceptable(name.data(), name.size())) {
        __log(-1, "%s:%d calls itself '%s', which no server process may", channel.host, channel.port,
              printable(name).c_str());
        cp_search_failed(pcx, id);
        ccm_channel_deletebyID(pcx->ccm, id);
        cp_connection_connect_next_based_ranking(pcx);
        return -1;
    }
    if (cp_search_answered(pcx, id, channel.port, ranking) != 0) {
        log_unknown_candidate(channel);
        ccm_channel_deletebyID(pcx->ccm, id);
        cp_connection_connect_next_based_ranking(pcx);
        return 0;
    }
    name_channel(pcx, id, name, ranking);
    __log(number_server_answered, "%s(ID=%d)", name.c_str(), id);
    if (!equal_ignore_case(system, pcx->sysName)) {
        __log(number_wrong_system, "%s|", printable(system).c_str());
        cp_search_failed(pcx, id);
        ccm_channel_deletebyID(pcx->ccm, id);
        cp_connection_connect_next_based_ranking(pcx);
        return -1;
    }
    __log(number_server_ranking, "%s|%d", name.c_str(), ranking);
    const char* list = reinterpret_cast<const char*>(msg->msg_start) + sizeof data;
    const size_t length = static_cast<size_t>(msg->len) - sizeof data;
    named_lists[id] = std::string(list, std::min(length, named_list_max));
    cp_search_add_list(pcx, list, length);
    cp_connection_connect_next_based_ranking(pcx);
    return 0;
}

int process_cp_server_list(EX_PCX* pcx, ccm_msg_t* msg) {
    ccm_channel_image_t channel;
    if (ccm_channel_copy(pcx->ccm, msg->addr.src_ID, &channel) != 0) {
        return -1;
    }
    write_cp_list(pcx,
                  std::string(reinterpret_cast<const char*>(msg->msg_start), static_cast<size_t>(msg->len)));
    return 0;
}

// ---- visit cards

int send_visitcard(EX_PCX* pcx, int channel_id) {
    executor_data card;
    memset(&card, ' ', sizeof card);
    put_text(card.name, pcx->exName);
    card.ipPort = static_cast<uint32_t>(pcx->ipPort);
    card.flag = executor_card_flag;
    memset(card.key_hash, 0, sizeof card.key_hash);
    if (pcx->running_mode == MODE_AGENT) {
        getKeyHash(agent_keys(), pcx->exName, card.key_hash);
    }
    ccm_msg_t* msg = ccm_msg_alloc(pcx->ccm, nullptr);
    if (msg == nullptr) {
        return -1;
    }
    ccm_msg_write_native_data(msg, key_executor_data, &card, sizeof card);
    ccm_setaddr(msg, channel_id, 0, "", "", 0);
    return send_native_message(pcx->ccm, msg);
}

int process_executor_data(EX_PCX* pcx, ccm_msg_t* msg) {
    const int id = msg->addr.src_ID;
    const card_content card = read_card(msg);
    if (!ccm_name_acceptable(card.name.data(), card.name.size())) {
        ccm_channel_failbyID(pcx->ccm, id, number_wrong_agent, "%s||", printable(card.name).c_str());
        return -1;
    }
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, id);
    if (channel == nullptr) {
        __log(number_no_connection, "AGENT/%s()|%d", "process_executor_data", id);
        return -1;
    }
    if ((channel->flag & CH_FLAG_REQUEST_SENT) != 0) {
        ccm_channel_unlock(pcx->ccm);
        return 0;  // only the first card of a connection counts
    }
    copy_text(channel->name, card.name);
    if (channel->cuc == nullptr) {
        ccm_channel_unlock(pcx->ccm);
        __log(-1,
              "connection user context doesn't exist for that connection. initiator process cannot be "
              "informed. ID=%i, name='%s'",
              id, card.name.c_str());
        return -1;
    }
    ccm_connect_user_context_t context = *channel->cuc;
    const bool expected = card.name == channel->cuc->name;
    if (expected) {
        channel->port = card.port;
        channel->cuc->pDelegCred = nullptr;  // it moves to the handshake
    }
    context.pDelegCred = expected ? context.pDelegCred : nullptr;
    const bool of_transfer = field_text(context.key).starts_with("FTX ");
    if (context.pDelegCred == nullptr && !of_transfer) {
        channel->cuc->key[0] = '\0';  // answered below: the close isn't answered once more
        // At once: another card of this partner, or its time limit, has nothing to say any more.
        ccm_channel_delete(pcx->ccm, channel);
    }
    ccm_channel_unlock(pcx->ccm);

    const ccm_addr_t& requester = context.ccmaddr;
    if (!expected) {
        const std::string insert = card.name + "|" + context.name + "|";
        if (of_transfer) {
            // The transfer answers for itself when the channel ends.
            ccm_channel_failbyID(pcx->ccm, id, number_wrong_agent, "%s", insert.c_str());
            return -1;
        }
        __log(number_wrong_agent, "%s", insert.c_str());
        send_quitt_extended(pcx, requester.src_ID, requester.src_name, requester.dst_name, requester.src_acv,
                            "CONNECT ", context.client, context.user, number_wrong_agent, insert.c_str(),
                            "NK", nullptr, 0);
        return -1;
    }
    __log(number_agent_connected, "%s(ID=%d)", card.name.c_str(), id);
    if (context.pDelegCred == nullptr) {
        __log(number_no_credential, "%s|", card.name.c_str());
        send_quitt_extended(pcx, requester.src_ID, requester.src_name, requester.dst_name, requester.src_acv,
                            "CONNECT ", context.client, context.user, number_no_credential, "", "NK", nullptr,
                            0);
        return -1;
    }
    send_visitcard(pcx, id);
    return send_gss_request(pcx, pcx->ccm, id, context.pDelegCred);
}

int process_executor_data_listener(EX_PCX* pcx, ccm_msg_t* msg) {
    const card_content card = read_card(msg);
    if (!ccm_name_acceptable(card.name.data(), card.name.size())) {
        ccm_channel_failbyID(pcx->ccm, msg->addr.src_ID, number_wrong_agent, "%s||",
                             printable(card.name).c_str());
        return -1;
    }
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, msg->addr.src_ID);
    if (channel == nullptr) {
        __log(-1, "executor_data message arrives from partner, but channel not found");
        return -1;
    }
    copy_text(channel->name, card.name);
    channel->port = card.port;
    ccm_channel_unlock(pcx->ccm);
    return 0;
}

// ---- the standing connection

int server_connection_established(EX_PCX* pcx, int channel_id) {
    cp_search_end(pcx, channel_id);
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, channel_id);
    if (channel == nullptr) {
        return -1;
    }
    char own_address[64];
    copy_text(own_address, channel->bind_addr);
    const time_t now = alarm_now();
    channel->timestamp_last_io = now;
    channel->timestamp_last_read = now;
    ccm_channel_unlock(pcx->ccm);
    if (pcx->listener_bindaddr[0] == '\0') {
        copy_text(pcx->listener_bindaddr, own_address);
    }
    // Directly before the start message, so that nothing overtakes it.
    pcx->pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    pcx->unquitted_srvqry = 0;
    logon_limit = now + pcx->connwait;
    const int result = send_exstart(pcx);
    if (result != 0) {
        // A connection without a logon would stand for ever.
        __log(-1, "the start message could not be made, the connection is closed");
        ccm_channel_deletebyID(pcx->ccm, channel_id);
    }
    const auto named = named_lists.find(channel_id);
    if (named != named_lists.end()) {
        write_cp_list(pcx, named->second);
    }
    named_lists.clear();
    return result;
}

void server_handshake_failed(EX_PCX* pcx, const ccm_channel_image_t& channel) {
    constexpr char remedy[] = "see 'First contact' in docs/operations.md";
    if (channel.msgnr == number_no_answer) {
        return;  // it said nothing, so its opinion of the key is not known
    }
    const std::string fingerprint = key_fingerprint(agent_keys(), pcx->exName);
    if (fingerprint.empty()) {
        __log(-1,
              "the server %s:%d ended the connection before the handshake was over, and this agent holds no "
              "transfer key: the server may hold one for '%s' that its operator has to forget, or first "
              "contact is off; %s",
              channel.addr, channel.port, pcx->exName, remedy);
        return;
    }
    __log(-1,
          "the server %s:%d ended the connection before the handshake was over: it may not know this agent's "
          "transfer key (fingerprint %s). If it has lost it, remove section [%s] from '%s' and start the "
          "agent again; %s",
          channel.addr, channel.port, fingerprint.c_str(), pcx->exName, agent_keys().file.c_str(), remedy);
}

void server_connection_lost(EX_PCX* pcx) {
    pcx->pcx_flag.fetch_and(~PCX_FLAG_SERVER_CHANNEL);
    pcx->waitForChglogQu = 0;
    if (pcx->upgrade_ah_idnr != 0) {
        pcx->upgrade_exit_code = 0;  // an upgrade that was under way is off
    }
}

namespace {

// A server that answers everything but the logon would keep the agent from looking for another one.
bool logon_is_late(const EX_PCX* pcx, time_t now) {
    return (pcx->pcx_flag & PCX_FLAG_LOGGED_IN) == 0 && logon_limit != 0 && now >= logon_limit;
}

void give_up_logon(EX_PCX* pcx, int channel_id, time_t now) {
    logon_limit = 0;
    __log(-1,
          "the server has not answered the logon for %d seconds, the connection is closed and the search "
          "goes on",
          pcx->connwait);
    pcx->Srv_alarm_time = std::max(pcx->Srv_alarm_time, now + 1);
    ccm_channel_deletebyID(pcx->ccm, channel_id);
}

}  // namespace

int maintenance_server_connection(EX_PCX* pcx) {
    ccm_channel_image_t channel;
    if (ccm_channel_copybyName(pcx->ccm, ccm_name_server, &channel) != 0 || channel.type != CH_TYPE_SERVER) {
        int id;
        // The event of its end may have been lost for want of memory.
        if (ccm_channel_collect(pcx->ccm, CH_TYPE_SERVER, &id, 1) == 0 && ccm_recvq_empty(pcx->ccm)) {
            server_connection_lost(pcx);
        }
        return -1;
    }
    ccm_channel_t* server = ccm_channel_getbyID(pcx->ccm, channel.ID);
    if (server == nullptr) {
        return -1;
    }
    const time_t now = alarm_now();
    if (logon_is_late(pcx, now)) {
        ccm_channel_unlock(pcx->ccm);
        give_up_logon(pcx, channel.ID, now);
        return 0;
    }
    const bool silent = now - server->timestamp_last_read >= pcx->Per_KeepAlive;
    const bool ask = silent && pcx->unquitted_srvqry < unanswered_limit;
    if (ask) {
        server->timestamp_last_read = now;
    }
    ccm_channel_unlock(pcx->ccm);
    if (ask) {
        return send_srvquery(pcx);
    }
    if (silent) {
        // Also the end of the logged-in state: otherwise the next search would not wait.
        pcx->pcx_flag.fetch_and(~PCX_FLAG_LOGGED_IN);
        pcx->Srv_alarm_time = now + wait_after_silence;
        __log(-1, "the server answers nothing for %lld seconds, the connection is closed",
              static_cast<long long>(pcx->Per_KeepAlive) * (unanswered_limit + 1));
        ccm_channel_deletebyID(pcx->ccm, channel.ID);
    }
    return 0;
}

time_t server_connection_due(EX_PCX* pcx) {
    ccm_channel_image_t channel;
    if (ccm_channel_copybyName(pcx->ccm, ccm_name_server, &channel) != 0 || channel.type != CH_TYPE_SERVER) {
        return alarm_now() + 1;  // its end is on the way, or lost
    }
    const time_t silent = static_cast<time_t>(channel.timestamp_last_read) + pcx->Per_KeepAlive;
    const bool waits_for_logon = (pcx->pcx_flag & PCX_FLAG_LOGGED_IN) == 0 && logon_limit != 0;
    return waits_for_logon ? std::min(silent, logon_limit) : silent;
}

int send_srvquery(EX_PCX* pcx) {
    message_builder<MSG_TYPE_SRVQUERY> query(0, 0);
    query->extime = timestamp_now();
    ++pcx->unquitted_srvqry;
    return send_built(pcx->ccm, query, to_server(pcx, variables_module, own_module));
}

int send_exstop(EX_PCX* pcx) {
    message_builder<MSG_TYPE_EXSTOP> stop(0, 0);
    put_text(stop->host, pcx->exName);
    return send_built(pcx->ccm, stop, to_server(pcx, variables_module, own_module));
}
