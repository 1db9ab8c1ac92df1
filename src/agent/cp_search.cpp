#include "agent/cp_search.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "agent/server_connection.h"
#include "base/context.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/connect.h"
#include "channels/network_thread.h"
#include "log/log.h"
#include "security/random.h"

namespace {

constexpr char eyecatcher[] = "%CPCONN%";
constexpr int list_elements_max = 63;
constexpr size_t host_max = 63;
constexpr int port_max = 65535;
constexpr int rank_of_first_named = 2;
constexpr int random_ranking_base = 32768;

// Beside the array, in the same order: the channel of each candidate, 0 before its connect.
int candidate_channel[cp_connection_max];
// The channel that was chosen last; it is in its handshake while it still is a candidate by type.
int chosen_channel = 0;
time_t last_start = 0;
// A connect that took longer has waited for a resolver that does not answer.
constexpr int slow_connect_ms = 1000;

bool searching(const EX_PCX* pcx) {
    return (pcx->pcx_flag & PCX_FLAG_CP_SEARCH) != 0 && pcx->cp_connections != nullptr;
}

bool failed(const cp_connection_t& entry) {
    return (entry.flag & CPC_FLAG_FAILED) != 0;
}
bool answered(const cp_connection_t& entry) {
    return (entry.flag & CPC_FLAG_ANSWERED) != 0;
}
bool started(const cp_connection_t& entry) {
    return (entry.flag & CPC_FLAG_CONNECTING) != 0;
}
bool in_flight(const cp_connection_t& entry) {
    return started(entry) && !answered(entry) && !failed(entry);
}

void free_list(EX_PCX* pcx) {
    free(pcx->cp_connections);
    pcx->cp_connections = nullptr;
    pcx->nof_cp_connections = 0;
}

// Sorts both arrays alike; equal rankings keep their order.
void sort_candidates(EX_PCX* pcx) {
    cp_connection_t* list = pcx->cp_connections;
    for (int at = 1; at < pcx->nof_cp_connections; ++at) {
        for (int to = at; to > 0 && cp_connection_sortbyRanking(&list[to - 1], &list[to]) > 0; --to) {
            std::swap(list[to - 1], list[to]);
            std::swap(candidate_channel[to - 1], candidate_channel[to]);
        }
    }
}

int index_of_channel(const EX_PCX* pcx, int channel_id) {
    for (int at = 0; at < pcx->nof_cp_connections; ++at) {
        if (candidate_channel[at] == channel_id && channel_id > 0) {
            return at;
        }
    }
    return -1;
}

int index_of_next(const EX_PCX* pcx) {
    for (int at = 0; at < pcx->nof_cp_connections; ++at) {
        if (!started(pcx->cp_connections[at]) && !failed(pcx->cp_connections[at])) {
            return at;
        }
    }
    return -1;
}

bool any_in_flight(const EX_PCX* pcx) {
    return std::any_of(pcx->cp_connections, pcx->cp_connections + pcx->nof_cp_connections, in_flight);
}

void mark_failed(EX_PCX* pcx, int at) {
    pcx->cp_connections[at].flag |= CPC_FLAG_FAILED;
    pcx->cp_connections[at].ranking = cp_ranking_failed;
}

// What the list says now.
struct standing {
    int failed = 0;
    int answered = 0;
    int best = -1;
    bool at_once = false;
};

standing stand_of(const EX_PCX* pcx) {
    standing now;
    for (int at = 0; at < pcx->nof_cp_connections; ++at) {
        const cp_connection_t& entry = pcx->cp_connections[at];
        if (failed(entry)) {
            ++now.failed;
        } else if (answered(entry)) {
            ++now.answered;
            if (now.best < 0 || entry.ranking < pcx->cp_connections[now.best].ranking) {
                now.best = at;
            }
            if (entry.ranking == cp_ranking_now) {
                now.best = at;
                now.at_once = true;
                break;
            }
        }
    }
    return now;
}

int give_up(EX_PCX* pcx) {
    __log(2000355, "%d", pcx->Per_Reconnect);
    cp_search_end(pcx, 0);
    pcx->Srv_alarm_time = alarm_now() + pcx->Per_Reconnect;
    return 1;
}

// ---- the outside

int real_connect(EX_PCX* pcx, const char* host, int port) {
    __log(2000011, "%s:%d", host, port);
    ccm_error_t error;
    const int id = ccm_connect(pcx->ccm, host, port, CH_TYPE_CP_CANDIDATE, nullptr, pcx->connwait, &error);
    if (id < 0) {
        __log(error.msgnr, "%s", error.msginsert);
    }
    return id;
}

int real_choose(EX_PCX* pcx, int channel_id) {
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, channel_id);
    if (channel == nullptr) {
        return -1;
    }
    char name[64];
    char host[128];
    copy_text(name, channel->name);
    copy_text(host, channel->host);
    copy_text(channel->name, ccm_name_server);
    // From here on the time runs for the handshake.
    channel->connect_timeout_secs = pcx->connwait;
    channel->connect_timeout = alarm_now() + pcx->connwait;
    channel->flag.fetch_or(CH_FLAG_CONNECTING);
    const int port = channel->port;
    ccm_channel_unlock(pcx->ccm);
    __log(2000073, "%s|%s:%d", name, host, port);
    return send_visitcard(pcx, channel_id);
}

void real_close_candidates(EX_PCX* pcx, int keep_channel_id) {
    int ids[256];
    const int count = ccm_channel_collect(pcx->ccm, CH_TYPE_CP_CANDIDATE, ids, 256);
    for (int at = 0; at < count; ++at) {
        if (ids[at] != keep_channel_id) {
            ccm_channel_deletebyID(pcx->ccm, ids[at]);
        }
    }
}

bool real_candidates_alive(EX_PCX* pcx) {
    int id;
    return ccm_channel_collect(pcx->ccm, CH_TYPE_CP_CANDIDATE, &id, 1) > 0 || !ccm_recvq_empty(pcx->ccm);
}

}  // namespace

cp_search_actions cp_search_outside = {real_connect, real_choose, real_close_candidates,
                                       real_candidates_alive};

int cp_search_open(EX_PCX* pcx) {
    cp_search_end(pcx, 0);
    pcx->cp_connections = static_cast<cp_connection_t*>(calloc(cp_connection_max, sizeof(cp_connection_t)));
    memset(candidate_channel, 0, sizeof candidate_channel);
    chosen_channel = 0;
    last_start = alarm_now();
    if (pcx->cp_connections == nullptr) {
        return -1;
    }
    pcx->pcx_flag.fetch_or(PCX_FLAG_CP_SEARCH);
    return 0;
}

void cp_search_end(EX_PCX* pcx, int keep_channel_id) {
    pcx->pcx_flag.fetch_and(~PCX_FLAG_CP_SEARCH);
    free_list(pcx);
    cp_search_outside.close_candidates(pcx, keep_channel_id);
}

int cp_connection_add(EX_PCX* pcx, const char* host, int port, int ranking) {
    const size_t length = strlen(host);
    if (pcx->cp_connections == nullptr || pcx->nof_cp_connections >= cp_connection_max || length == 0 ||
        length > host_max || port < 1 || port > port_max) {
        return -1;
    }
    cp_connection_t& entry = pcx->cp_connections[pcx->nof_cp_connections];
    entry = {};
    memcpy(entry.eyec, eyecatcher, sizeof entry.eyec);
    snprintf(entry.name, sizeof entry.name, "*PORT(%d)", port);
    copy_text(entry.addr, host);
    entry.port = port;
    entry.ranking = ranking;
    candidate_channel[pcx->nof_cp_connections++] = 0;
    return 0;
}

cp_connection_t* cp_connection_get_by_port(EX_PCX* pcx, int port) {
    for (int at = 0; at < pcx->nof_cp_connections; ++at) {
        if (pcx->cp_connections[at].port == port) {
            return &pcx->cp_connections[at];
        }
    }
    return nullptr;
}

int cp_connection_sortbyRanking(const void* left, const void* right) {
    const int a = static_cast<const cp_connection_t*>(left)->ranking;
    const int b = static_cast<const cp_connection_t*>(right)->ranking;
    return a < b ? -1 : a > b ? 1 : 0;
}

int cp_connection_connect_next_based_ranking(EX_PCX* pcx) {
    for (;;) {
        const int result = cp_connection_check_best(pcx);
        if (result > 0 || any_in_flight(pcx)) {
            return result;
        }
        sort_candidates(pcx);
        const int at = index_of_next(pcx);
        if (at < 0) {
            continue;  // all have answered or failed: the next check decides
        }
        const cp_connection_t entry = pcx->cp_connections[at];
        const int64_t begin = alarm_now_ms();
        const int id = cp_search_outside.connect(pcx, entry.addr, entry.port);
        if (id > 0) {
            pcx->cp_connections[at].flag |= CPC_FLAG_CONNECTING;
            candidate_channel[at] = id;
            return 0;
        }
        mark_failed(pcx, at);
        if (alarm_now_ms() - begin > slow_connect_ms) {
            // The next pass goes on: a row of names that nobody resolves must not keep the jobs waiting, nor
            // the listener without its ping.
            return 0;
        }
    }
}

int cp_connection_check_best(EX_PCX* pcx) {
    if (!searching(pcx)) {
        return 2;
    }
    sort_candidates(pcx);
    for (;;) {
        const standing now = stand_of(pcx);
        if (now.failed == pcx->nof_cp_connections) {
            return give_up(pcx);
        }
        if (!now.at_once && now.failed + now.answered < pcx->nof_cp_connections) {
            return 0;
        }
        const int id = candidate_channel[now.best];
        if (cp_search_outside.choose(pcx, id) != 0) {
            mark_failed(pcx, now.best);  // it went away in this very moment; the others are still there
            continue;
        }
        chosen_channel = id;
        pcx->Srv_alarm_time = alarm_now() + pcx->Per_Reconnect;
        cp_search_end(pcx, id);
        return 2;
    }
}

int cp_search_answered(EX_PCX* pcx, int channel_id, int port, int ranking) {
    const int at = searching(pcx) ? index_of_channel(pcx, channel_id) : -1;
    if (at < 0 || pcx->cp_connections[at].port != port) {
        return -1;
    }
    cp_connection_t& entry = pcx->cp_connections[at];
    entry.flag |= (ranking == cp_ranking_refused ? CPC_FLAG_FAILED : CPC_FLAG_CONNECTING) | CPC_FLAG_ANSWERED;
    entry.ranking = ranking;
    return 0;
}

void cp_search_failed(EX_PCX* pcx, int channel_id) {
    const int at = searching(pcx) ? index_of_channel(pcx, channel_id) : -1;
    if (at >= 0) {
        mark_failed(pcx, at);
    }
}

void cp_connection_closed(EX_PCX* pcx, int channel_id, int port) {
    const int at = searching(pcx) ? index_of_channel(pcx, channel_id) : -1;
    if (at < 0 || pcx->cp_connections[at].port != port || failed(pcx->cp_connections[at])) {
        return;
    }
    mark_failed(pcx, at);
    cp_connection_connect_next_based_ranking(pcx);
}

void cp_search_add_list(EX_PCX* pcx, const char* list, size_t length) {
    struct ranked {
        EX_PCX* pcx;
        int rank;
    } context = {pcx, rank_of_first_named};
    cp_list_each(
        list, length,
        [](void* at, const char* host, int port) {
            ranked* named = static_cast<ranked*>(at);
            const int rank = named->rank++;
            cp_connection_t* known = cp_connection_get_by_port(named->pcx, port);
            if (known == nullptr) {
                cp_connection_add(named->pcx, host, port, rank);
            } else if (!answered(*known) && !failed(*known)) {
                known->ranking = rank;
            }
        },
        &context);
}

void cp_search_check(EX_PCX* pcx) {
    if (!searching(pcx) || (any_in_flight(pcx) && cp_search_outside.candidates_alive(pcx))) {
        return;
    }
    for (int at = 0; at < pcx->nof_cp_connections; ++at) {
        if (in_flight(pcx->cp_connections[at])) {
            mark_failed(pcx, at);
        }
    }
    cp_connection_connect_next_based_ranking(pcx);
}

time_t cp_search_last_start() {
    return last_start;
}

bool cp_handshake_under_way(EX_PCX* pcx) {
    ccm_channel_image_t channel;
    return chosen_channel > 0 && ccm_channel_copy(pcx->ccm, chosen_channel, &channel) == 0 &&
           channel.type == CH_TYPE_CP_CANDIDATE;
}

int cp_random_ranking() {
    return static_cast<int>(GetRandom() % 9999) + random_ranking_base;
}

int cp_list_element(const char* text, size_t length, char host[64], int* port) {
    const std::string_view element(text, length);
    const size_t colon = element.rfind(':');
    if (colon == std::string_view::npos || colon == 0 || colon > host_max) {
        return -1;
    }
    const std::string_view name = element.substr(0, colon);
    const std::string_view digits = element.substr(colon + 1);
    constexpr std::string_view allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:%[]";
    int64_t number = 0;
    if (name.find_first_not_of(allowed) != std::string_view::npos || digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string_view::npos ||
        !parse_number(digits, 1, port_max, &number)) {
        return -1;
    }
    memcpy(host, name.data(), name.size());
    host[name.size()] = '\0';
    *port = static_cast<int>(number);
    return 0;
}

void cp_list_each(const char* list, size_t length, void (*use)(void* context, const char* host, int port),
                  void* context) {
    const std::string_view text(list, length);
    size_t at = 0;
    for (int count = 0; count < list_elements_max && at < text.size(); ++count) {
        const size_t end = std::min(text.find(';', at), text.size());
        const std::string_view element = strip(text.substr(at, end - at));
        char host[64];
        int port;
        if (cp_list_element(element.data(), element.size(), host, &port) == 0) {
            use(context, host, port);
        }
        at = end + 1;
    }
}
