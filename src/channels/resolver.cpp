#include "channels/resolver.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/threads.h"
#include "channels/connect.h"
#include "channels/internal.h"

namespace {

// Held while a look-up's result goes to its context, so that the context cannot go away under it. Never held
// during a look-up.
qx_recursive_lock lock;
[[maybe_unused]] const bool lock_registered = (fork_lock_register_recursive(FORK_LOCK_RESOLVER, &lock), true);

struct guard {
    guard() { lock.lock(); }
    ~guard() { lock.unlock(); }
    guard(const guard&) = delete;
    guard& operator=(const guard&) = delete;
};

// Under the lock. The records live as long as the process: a look-up may outlast everything else.
int lookups_under_way = 0;
std::vector<in_addr_t>& own_host = *new std::vector<in_addr_t>;
bool own_host_asked = false;

struct lookup {
    __qx_thread thread;
    ccm_context_t* ccm = nullptr;  // null once the context was forgotten; under the lock
    int id = 0;
    int port = 0;
    std::string host;
};
std::vector<lookup*>& lookups = *new std::vector<lookup*>;  // those of channels

void connect_channel(ccm_context_t* ccm, const lookup& work, const sockaddr_in6& address) {
    ccm_error_t error;
    qx_descriptor s(connect_socket(work.id, address, &error));
    if (!s.valid()) {
        ccm_channel_failbyID(ccm, work.id, error.qx_msgnr, "%s", error.qx_msgInsert);
        return;
    }
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, work.id);
    if (channel == nullptr) {
        return;  // it took too long
    }
    ccm_address2string(&address, channel->addr, sizeof channel->addr);
    channel->s.store(s.release());
    ccm_channel_unlock(ccm);
    ccm_wakeup_network(ccm);
}

void* run_lookup(void* argument) {
    const std::unique_ptr<lookup> work(static_cast<lookup*>(argument));
    sockaddr_in6 address;
    ccm_error_t error;
    const int result = ccm_hostname2address(work->host.c_str(), CCM_PREFER_IPV4, &address, &error);
    address.sin6_port = htons(static_cast<uint16_t>(work->port));
    const guard held;
    --lookups_under_way;
    std::erase(lookups, work.get());
    if (work->ccm != nullptr && result == 0) {
        connect_channel(work->ccm, *work, address);
    } else if (work->ccm != nullptr) {
        ccm_channel_failbyID(work->ccm, work->id, error.qx_msgnr, "%s", error.qx_msgInsert);
    }
    return nullptr;
}

std::vector<in_addr_t> addresses_of_own_name() {
    std::vector<in_addr_t> found;
    char name[256] = {};
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (gethostname(name, sizeof name - 1) != 0 || getaddrinfo(name, nullptr, &hints, &list) != 0) {
        return found;  // the interfaces tell enough
    }
    for (const addrinfo* at = list; at != nullptr; at = at->ai_next) {
        sockaddr_in address;
        memcpy(&address, at->ai_addr, sizeof address);
        found.push_back(address.sin_addr.s_addr);
    }
    freeaddrinfo(list);
    return found;
}

void* run_own_host(void*) {
    std::vector<in_addr_t> found = addresses_of_own_name();
    const guard held;
    --lookups_under_way;
    own_host = std::move(found);
    return nullptr;
}

// Under the lock.
int start_thread(__qx_thread* thread, void* (*run)(void*), void* argument, ccm_error_t* err) {
    if (lookups_under_way >= resolver_threads_max) {
        return qx_error_set(err, -1, EAGAIN, number_call_failed, "getaddrinfo|%d(%s)", EAI_AGAIN,
                            "too many names are being looked up");
    }
    copy_text(thread->th_name, "RESOLVER");
    if (StartWorkerThread(thread, run, argument, err) != 0) {
        return -1;
    }
    ++lookups_under_way;
    return 0;
}

}  // namespace

int resolver_connect(ccm_context_t* ccm, int id, const char* host, int port, ccm_error_t* err) {
    ccm_assert_no_spin_lock();
    std::unique_ptr<lookup> work(new (std::nothrow) lookup);
    if (work == nullptr) {
        return qx_error_set(err, -1, ENOMEM, number_no_memory, "%s/%s(%d)", "RESOLVER", __FILE__, __LINE__);
    }
    work->ccm = ccm;
    work->id = id;
    work->host = host;
    work->port = port;
    const guard held;
    if (start_thread(&work->thread, run_lookup, work.get(), err) != 0) {
        return -1;
    }
    lookups.push_back(work.release());  // the thread's own; it waits for the lock before it ends
    return 0;
}

int resolver_lookups() {
    const guard held;
    return lookups_under_way;
}

void resolver_forget(const ccm_context_t* ccm) {
    const guard held;
    for (lookup* work : lookups) {
        if (work->ccm == ccm) {
            work->ccm = nullptr;
        }
    }
}

std::vector<in_addr_t> resolver_own_host() {
    static __qx_thread thread;
    const guard held;
    if (!own_host_asked) {
        own_host_asked = true;
        start_thread(&thread, run_own_host, nullptr, nullptr);  // the interfaces tell enough
    }
    return own_host;
}
