// A channel manager with its context and log, and partners that speak the wire's form by hand.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/context.h"
#include "channels/ccm.h"
#include "channels/connect.h"
#include "channels/handshake.h"
#include "channels/ipc.h"
#include "channels/messages.h"
#include "channels/network_thread.h"
#include "channels/policy.h"
#include "log_collector.h"
#include "messages/frame.h"
#include "scratch.h"
#include "security/mechanism.h"

using bytes = std::vector<unsigned char>;

inline constexpr char own_name[] = "AGENT01";
inline constexpr char own_system[] = "SYS1";
inline constexpr int wait_seconds = 10;

bytes text_bytes(std::string_view text);
// A QUITT of the catalogue's 304 bytes with `insert`.
bytes quitt_body(std::string_view insert = "");

// The far end of a connection: a blocking socket with a time limit.
struct partner {
    int fd = -1;
    gss_ctx_id_t context = nullptr;

    explicit partner(int socket);
    partner(partner&& other) noexcept;
    partner(const partner&) = delete;
    ~partner();

    void send(const bytes& data);
    // The next whole frame; empty at the end of the connection or after the time limit.
    bytes frame();
    // Whether the connection ends within the time limit; what comes before is thrown away.
    bool ended();
    // A frame whose body is sealed with `context`.
    bytes sealed(const bytes& plain_frame);
    // Body of a sealed frame, opened.
    bytes unsealed(const bytes& frame);
    void close();
};

struct ccm_test : testing::Test {
    EX_PCX pcx;
    ccm_context_t* ccm = nullptr;
    std::optional<scratch> key_folder;

    ccm_test();
    ~ccm_test() override;
    void start();
    // The process becomes one of another kind, as a forked child does before its threads start.
    void be(int mode);

    // A channel of `type` over a socket pair (for connections a loopback TCP pair), chained; its far end.
    partner open_channel(int type, const char* name, int* id);
    // The next message of the receive queue; null after the time limit.
    ccm_msg_ptr take(int seconds = wait_seconds);
    // The next message of `type`, others are freed.
    ccm_msg_ptr take_type(int type);
    // The next internal record `name`; others are freed.
    ccm_msg_ptr take_record(const char* name);
    // The same, for a caller who frees.
    ccm_msg_t* receive(int seconds = wait_seconds) { return take(seconds).release(); }
    ccm_msg_t* receive_type(int type) { return take_type(type).release(); }
    ccm_msg_t* receive_record(const char* name) { return take_record(name).release(); }
    void free(ccm_msg_t* msg) { ccm_msg_free(ccm, msg); }
    // What CHANNEL_CLOSE tells of the channel; a failure when none comes.
    ccm_channel_image_t close_event(int id);
    // What is told of a channel that there must be.
    ccm_channel_image_t image_of(int id) const;

    ccm_msg_t* nat_message(const bytes& body);
    // Waits until `done`; false after the time limit. Looks at each millisecond.
    static bool eventually(const std::function<bool()>& done);
    int logged(int number) const { return logged_count(number); }
    std::string log_text(int number) const { return logged_text(number); }

    // Keys: the agent's transfer key is known to both sides.
    void open_security();
    // A handshake from the far side as `name`; sets the partner's context.
    void shake_hands(partner* far, const char* name);
};

// Two connected TCP sockets on loopback.
void tcp_pair(int ends[2]);
