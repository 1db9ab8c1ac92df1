#include "connection.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "messages/frame.h"
#include "messages/head.h"
#include "messages/records_server.h"
#include "messages/view.h"
#include "moment.h"

namespace {

constexpr int64_t time_limit_ms = 30000;
constexpr int shortest_pause_ms = 100;
constexpr int longest_pause_ms = 1600;
constexpr size_t largest_answer = 65536;

struct answer_fields {
    char status[sizeof MSG_TYPE_QUITT::quitt] = {};
    int32_t number = 0;
};

int64_t now_ms() {
    const timespec now = read_clock(CLOCK_MONOTONIC);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits for the descriptor until the deadline; false when it passed.
bool wait_for(int fd, short events, int64_t deadline) {
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd wanted{fd, events, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(left));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool connect_to(int fd, const sockaddr* target, socklen_t length, int64_t deadline) {
    if (connect(fd, target, length) == 0) {
        return true;
    }
    if (errno != EINPROGRESS || !wait_for(fd, POLLOUT, deadline)) {
        return false;
    }
    int failure = 0;
    socklen_t size = sizeof failure;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0) {
        return false;
    }
    errno = failure;
    return failure == 0;
}

// What went wrong in a try: the words, with a number of errno or none.
struct failure {
    const char* what = "";
    const char* reason = "";
    int number = 0;

    void take_errno(const char* step) {
        what = step;
        number = errno;
        reason = strerror(number);
    }
};

constexpr char not_reached[] = "cannot be reached";
constexpr char not_answered[] = "did not answer";

qx_descriptor connect_target(const sockaddr* target, socklen_t length, int64_t deadline, failure* why) {
    qx_descriptor trial(socket(target->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!trial.valid() || !connect_to(trial.get(), target, length, deadline)) {
        why->take_errno(not_reached);
        trial.reset();
    }
    return trial;
}

qx_descriptor connect_name(const request& order, int64_t deadline, failure* why) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(order.address, order.port, &hints, &found);
    if (result != 0) {
        *why = {not_reached, gai_strerror(result), 0};
        return {};
    }
    qx_descriptor connected;
    for (const addrinfo* target = found; target != nullptr && !connected.valid(); target = target->ai_next) {
        connected = connect_target(target->ai_addr, target->ai_addrlen, deadline, why);
    }
    freeaddrinfo(found);
    return connected;
}

// A server names an address, which needs no resolver.
qx_descriptor connect_agent(const request& order, int64_t deadline, failure* why) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(order.port_number);
    if (inet_pton(AF_INET, order.address, &v4.sin_addr) == 1) {
        return connect_target(reinterpret_cast<const sockaddr*>(&v4), sizeof v4, deadline, why);
    }
    return connect_name(order, deadline, why);
}

bool send_all(int fd, const message_frame& frame, int64_t deadline) {
    size_t at = 0;
    while (at < frame.length) {
        const ssize_t sent = send(fd, frame.bytes + at, frame.length - at, MSG_NOSIGNAL);
        if (sent > 0) {
            at += static_cast<size_t>(sent);
        } else if (errno == EAGAIN ? !wait_for(fd, POLLOUT, deadline) : errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool receive_all(int fd, unsigned char* bytes, size_t length, int64_t deadline) {
    size_t at = 0;
    while (at < length) {
        const ssize_t got = recv(fd, bytes + at, length - at, 0);
        if (got == 0) {
            errno = at == 0 ? ECONNRESET : EPROTO;  // behind the start of a frame no agent hangs up
            return false;
        }
        if (got > 0) {
            at += static_cast<size_t>(got);
        } else if (errno == EAGAIN ? !wait_for(fd, POLLIN, deadline) : errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Whether the body is that of a QUITT. Both fields belong to its first version and stand in their places: the
// view's own way to a field would bring the catalogue, whose tables the loader fills at each start.
bool read_answer(const unsigned char* body, size_t length, answer_fields* answer) {
    frame_body items;
    if (frame_parse_body(body, length, &items, nullptr) != 0 || !items.is_message ||
        !message_type_is(body + items.offset, items.length, "QUITT")) {
        return false;
    }
    const message_view view = view_message(body + items.offset, items.length);
    constexpr size_t status_at = offsetof(MSG_TYPE_QUITT, quitt);
    constexpr size_t number_at = offsetof(MSG_TYPE_QUITT, msgnr);
    if (view_has(view, status_at, sizeof answer->status)) {
        memcpy(answer->status, view.data + status_at, sizeof answer->status);
    }
    if (view_has(view, number_at, sizeof answer->number)) {
        memcpy(&answer->number, view.data + number_at, sizeof answer->number);
    }
    return true;
}

// The answer is the first QUITT; what the listener says of itself before is passed over.
bool wait_for_answer(int fd, int64_t deadline, answer_fields* answer) {
    static unsigned char body[largest_answer];
    for (;;) {
        unsigned char head[frame_header_size];
        if (!receive_all(fd, head, sizeof head, deadline)) {
            return false;
        }
        const int64_t length = GetProtocolLength(head);
        if (length <= static_cast<int64_t>(sizeof head) || length > static_cast<int64_t>(largest_answer)) {
            errno = EPROTO;
            return false;
        }
        const size_t body_length = static_cast<size_t>(length) - sizeof head;
        if (!receive_all(fd, body, body_length, deadline)) {
            return false;
        }
        if (frame_protocol_is(head, protocol_native) && read_answer(body, body_length, answer)) {
            return true;
        }
    }
}

// A listener that is full hangs up, and so does one that ends. Neither lasts; the same message twice changes
// nothing.
bool worth_another_try(const failure& why) {
    return why.number == ECONNRESET || why.number == EPIPE;
}

// One try. Whether the answer has come.
bool ask_agent(const request& order, const message_frame& frame, int64_t deadline, answer_fields* answer,
               failure* why) {
    const qx_descriptor connection = connect_agent(order, deadline, why);
    if (!connection.valid()) {
        return false;
    }
    if (!send_all(connection.get(), frame, deadline) ||
        !wait_for_answer(connection.get(), deadline, answer)) {
        why->take_errno(not_answered);
        return false;
    }
    return true;
}

void print_place(const request& order) {
    fprintf(stderr, "qxxjlnxm: %s at %s:%s ", order.agent, order.address, order.port);
}

}  // namespace

int tell_agent(const request& order, const message_frame& frame) {
    const int64_t deadline = now_ms() + time_limit_ms;
    answer_fields answer;
    failure why;
    int pause = shortest_pause_ms;
    while (!ask_agent(order, frame, deadline, &answer, &why)) {
        if (!worth_another_try(why) || now_ms() + pause >= deadline) {
            print_place(order);
            fprintf(stderr, "%s: %s\n", why.what, why.reason);
            return exit_unreachable;
        }
        poll(nullptr, 0, pause);
        pause = std::min(2 * pause, longest_pause_ms);
    }
    if (get_text(answer.status) != "OK") {
        print_place(order);
        fprintf(stderr, "did not take it (%d): job %d is not known there, has ended or is another user's\n",
                answer.number, order.run);
        return exit_unreachable;
    }
    return exit_ok;
}
