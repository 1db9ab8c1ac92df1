#include "agent/cp_search.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "agent/server_connection.h"
#include "base/context.h"
#include "base/message_numbers.h"
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

struct candidate {
    cp_connection_t entry;
    int channel = 0;  // 0 before its connect
};

struct search_state {
    bool open = false;
    std::vector<candidate> candidates;  // EX_PCX.nof_cp_connections of them
    // That was chosen last; it is in its handshake while it still is a candidate by type.
    int chosen_channel = 0;
    time_t last_start = 0;
};

search_state the_search;

// A connect that took longer has waited for a resolver that does not answer.
constexpr int slow_connect_ms = 1000;

bool searching(const EX_PCX* pcx) {
    return (pcx->pcx_flag & PCX_FLAG_CP_SEARCH) != 0 && the_search.open;
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
    the_search.open = false;
    the_search.candidates = {};
    pcx->nof_cp_connections = 0;
}

// Equal rankings keep their order.
void sort_candidates() {
    std::ranges::stable_sort(the_search.candidates, [](const candidate& left, const candidate& right) {
        return cp_connection_sortbyRanking(&left.entry, &right.entry) < 0;
    });
}

candidate* candidate_of(const EX_PCX* pcx, int channel_id) {
    if (!searching(pcx) || channel_id <= 0) {
        return nullptr;
    }
    const auto found = std::ranges::find(the_search.candidates, channel_id, &candidate::channel);
    return found == the_search.candidates.end() ? nullptr : &*found;
}

candidate* next_candidate() {
    const auto found = std::ranges::find_if(the_search.candidates, [](const candidate& other) {
        return !started(other.entry) && !failed(other.entry);
    });
    return found == the_search.candidates.end() ? nullptr : &*found;
}

bool any_in_flight() {
    return std::ranges::any_of(the_search.candidates, in_flight, &candidate::entry);
}

void mark_failed(cp_connection_t* entry) {
    entry->flag |= CPC_FLAG_FAILED;
    entry->ranking = cp_ranking_failed;
}

// What the list says now.
struct standing {
    size_t failed = 0;
    size_t answered = 0;
    candidate* best = nullptr;
    bool at_once = false;
};

standing stand_of_all() {
    standing now;
    for (candidate& one : the_search.candidates) {
        const cp_connection_t& entry = one.entry;
        if (failed(entry)) {
            ++now.failed;
        } else if (answered(entry)) {
            ++now.answered;
            if (now.best == nullptr || entry.ranking < now.best->entry.ranking) {
                now.best = &one;
            }
            if (entry.ranking == cp_ranking_now) {
                now.best = &one;
                now.at_once = true;
                break;
            }
        }
    }
    return now;
}

int give_up(EX_PCX* pcx) {
    __log(number_no_server, "%d", pcx->Per_Reconnect);
    cp_search_end(pcx, 0);
    pcx->Srv_alarm_time = alarm_now() + pcx->Per_Reconnect;
    return 1;
}

// ---- the outside

int real_connect(EX_PCX* pcx, const char* host, int port) {
    __log(number_server_tried, "%s:%d", host, port);
    ccm_error_t error;
    const int id = ccm_connect(pcx->ccm, host, port, CH_TYPE_CP_CANDIDATE, nullptr, pcx->connwait, &error);
    if (id < 0) {
        __log_error(error);
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
    __log(number_server_chosen, "%s|%s:%d", name, host, port);
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
    the_search = {true, {}, 0, alarm_now()};
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
    if (!the_search.open || the_search.candidates.size() >= cp_connection_max || length == 0 ||
        length > host_max || port < 1 || port > port_max) {
        return -1;
    }
    cp_connection_t& entry = the_search.candidates.emplace_back().entry;
    memcpy(entry.eyec, eyecatcher, sizeof entry.eyec);
    snprintf(entry.name, sizeof entry.name, "*PORT(%d)", port);
    copy_text(entry.addr, host);
    entry.port = port;
    entry.ranking = ranking;
    ++pcx->nof_cp_connections;
    return 0;
}

cp_connection_t* cp_connection_get_by_port(EX_PCX*, int port) {
    for (candidate& one : the_search.candidates) {
        if (one.entry.port == port) {
            return &one.entry;
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
        if (result > 0 || any_in_flight()) {
            return result;
        }
        sort_candidates();
        candidate* next = next_candidate();
        if (next == nullptr) {
            continue;  // all have answered or failed: the next check decides
        }
        const int64_t begin = alarm_now_ms();
        const int id = cp_search_outside.connect(pcx, next->entry.addr, next->entry.port);
        if (id > 0) {
            next->entry.flag |= CPC_FLAG_CONNECTING;
            next->channel = id;
            return 0;
        }
        mark_failed(&next->entry);
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
    sort_candidates();
    for (;;) {
        const standing now = stand_of_all();
        if (now.failed == the_search.candidates.size()) {
            return give_up(pcx);
        }
        if (!now.at_once && now.failed + now.answered < the_search.candidates.size()) {
            return 0;
        }
        const int id = now.best->channel;
        if (cp_search_outside.choose(pcx, id) != 0) {
            mark_failed(&now.best->entry);  // it went away in this very moment; the others are still there
            continue;
        }
        the_search.chosen_channel = id;
        pcx->Srv_alarm_time = alarm_now() + pcx->Per_Reconnect;
        cp_search_end(pcx, id);
        return 2;
    }
}

int cp_search_answered(EX_PCX* pcx, int channel_id, int port, int ranking) {
    candidate* known = candidate_of(pcx, channel_id);
    if (known == nullptr || known->entry.port != port) {
        return -1;
    }
    cp_connection_t& entry = known->entry;
    entry.flag |= (ranking == cp_ranking_refused ? CPC_FLAG_FAILED : CPC_FLAG_CONNECTING) | CPC_FLAG_ANSWERED;
    entry.ranking = ranking;
    return 0;
}

void cp_search_failed(EX_PCX* pcx, int channel_id) {
    if (candidate* known = candidate_of(pcx, channel_id)) {
        mark_failed(&known->entry);
    }
}

void cp_connection_closed(EX_PCX* pcx, int channel_id, int port) {
    candidate* known = candidate_of(pcx, channel_id);
    if (known == nullptr || known->entry.port != port || failed(known->entry)) {
        return;
    }
    mark_failed(&known->entry);
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
    if (!searching(pcx) || (any_in_flight() && cp_search_outside.candidates_alive(pcx))) {
        return;
    }
    for (candidate& one : the_search.candidates) {
        if (in_flight(one.entry)) {
            mark_failed(&one.entry);
        }
    }
    cp_connection_connect_next_based_ranking(pcx);
}

time_t cp_search_last_start() {
    return the_search.last_start;
}

bool cp_handshake_under_way(EX_PCX* pcx) {
    ccm_channel_image_t channel;
    return the_search.chosen_channel > 0 &&
           ccm_channel_copy(pcx->ccm, the_search.chosen_channel, &channel) == 0 &&
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
