// An agent that a test plays: it connects to the listener of another one as agents do, with the server's token, and
// then says what the test wants. No thread; each wait has a limit.
#pragma once

#include <poll.h>

#include <cstring>
#include <deque>
#include <utility>

#include "loopback.h"
#include "messages/head.h"
#include "messages/records_connection.h"
#include "messages/records_transfer.h"
#include "qxcp/agents/server_state.h"
#include "transfer/compress/compress.h"
#include "transfer/control_stream.h"

// Items of a stream: a control value and what it carries.
using stream_items = std::deque<std::pair<int, std::string>>;

inline std::string file_item(int oid, std::string_view name) {
    ControlStream text;
    cbsPutInt(&text, "OID", oid);
    cbsPutString(&text, "FNAME", name);
    cbsPutInt64(&text, "SIZ", 1);
    return text;
}

// As a sender packs them.
inline std::string stream_of(stream_items items, int id = compress_none) {
    const auto next = [](void* source, char* buffer, int, int, int*, int* control, ErrMsg*) {
        auto& left = *static_cast<stream_items*>(source);
        if (left.empty()) {
            return 0;
        }
        *control = left.front().first;
        const std::string bytes = std::move(left.front().second);
        left.pop_front();
        memcpy(buffer, bytes.data(), bytes.size());
        return static_cast<int>(bytes.size());
    };
    ErrMsg error{};
    CompressFile* file =
        cs3Open(&items, id, compress_framed, next, nullptr, nullptr, nullptr, nullptr, &error);
    std::string stream, piece(65536, '\0');
    for (int n; (n = csRead(file, piece.data(), static_cast<int>(piece.size()), &error)) > 0;) {
        stream.append(piece, 0, static_cast<size_t>(n));
    }
    csClose(file);
    return stream;
}

class fake_partner {
  public:
    std::deque<cp_received> received;

    // Agent `name`, of which the server then holds a key, at the listener of `partner`.
    fake_partner(cp_server* server, const std::string& name, const std::string& partner, int port)
        : own_name(name) {
        qx_secret<gss_key_size> key;
        memset(key.data(), 7, gss_key_size);
        set_transfer_key(&server->keys, name, key.data());
        std::string order_token, error;
        fd = connect_to_loopback(port);
        if (fd < 0 || !cp_delegation_token(server, name, partner, order_token, error) ||
            !introduce(own_token(key.data(), partner, order_token))) {
            return;
        }
        link.state = cp_link_state::sealed;
    }
    ~fake_partner() { close(fd); }
    fake_partner(const fake_partner&) = delete;
    fake_partner& operator=(const fake_partner&) = delete;

    bool connected() const { return link.state == cp_link_state::sealed; }
    void hang_up() { shutdown(fd, SHUT_RDWR); }

    // False when the partner has ended the line.
    bool say(const built_message& message, std::string_view module = "QXFTXEX") {
        frame_address address{};
        snprintf(address.dst_name, sizeof address.dst_name, "%.*s", static_cast<int>(module.size()),
                 module.data());
        snprintf(address.src_name, sizeof address.src_name, "QXFTXEX");
        return cp_link_send(link, identity, address, message) && flush();
    }
    bool say_data(int run, std::string_view stream) {
        constexpr size_t most = 32236;
        bool sent = true;
        for (size_t at = 0; sent && at < stream.size(); at += most) {
            auto head = new_message<MSG_TYPE_FTXDATA>(100, 1);
            head.ah_idnr = run;
            std::string all(reinterpret_cast<const char*>(&head), sizeof head);
            all += stream.substr(at, most);
            sent = say(built_message(all));
        }
        return sent;
    }
    bool say_end(int run) {
        auto end = new_message<MSG_TYPE_FTXEND>(100, 1);
        end.ah_idnr = run;
        return say(end);
    }

    // Whether a message of that type is here, or comes in time.
    bool hears(std::string_view type, int timeout_ms = 10000) {
        const auto here = [&] {
            for (const cp_received& one : received) {
                if (one.body.size() >= type.size() &&
                    memcmp(one.body.data(), type.data(), type.size()) == 0) {
                    return true;
                }
            }
            return false;
        };
        while (!here()) {
            if (!listen_once(timeout_ms)) {
                return false;
            }
        }
        return true;
    }
    // The partner ends the line.
    bool is_dropped(int timeout_ms = 10000) {
        while (listen_once(timeout_ms)) {
        }
        return dropped;
    }

  private:
    std::string own_name;
    int fd = -1;
    bool dropped = false;
    cp_link link;
    cp_identity identity;

    // The init token for `partner`, taken from the server's order.
    std::string own_token(const uint8_t* key, const std::string& partner, std::string& order_token) {
        OM_uint32 minor = 0;
        gss_cred_id_t own = nullptr, delegated = nullptr;
        gss_ctx_id_t server_context = nullptr;
        gss_name_t target = nullptr;
        gss_buffer_desc input{order_token.size(), order_token.data()}, answer, token;
        gss_buffer_desc name{partner.size(), const_cast<char*>(partner.data())};
        gss_acquire_cred_with_key(&minor, own_name, key, GSS_C_ACCEPT, &own);
        gss_accept_sec_context(&minor, &server_context, own, &input, nullptr, nullptr, nullptr, &answer,
                               nullptr, nullptr, &delegated);
        gss_import_name(&minor, &name, GSS_C_NT_MACHINE_UID_NAME, &target);
        gss_init_sec_context(&minor, delegated, &link.context, target, GSS_MECH_KLVT_QX7, 0, GSS_C_INDEFINITE,
                             nullptr, nullptr, nullptr, &token, nullptr, nullptr);
        const std::string made(static_cast<const char*>(token.value), token.length);
        gss_release_buffer(&minor, &token);
        gss_release_buffer(&minor, &answer);
        gss_release_name(&minor, &target);
        gss_delete_sec_context(&minor, &server_context, nullptr);
        gss_release_cred(&minor, &own);
        gss_release_cred(&minor, &delegated);
        return made;
    }

    bool introduce(const std::string& token) {
        if (read_frame().empty()) {  // the visit card of the other side
            return false;
        }
        executor_data card;
        memset(&card, ' ', sizeof card);
        put_text(card.name, own_name);
        card.ipPort = 1;
        card.flag = 0x60;
        memset(card.key_hash, 0, sizeof card.key_hash);
        const std::vector<unsigned char> frame = frame_make_item(key_executor_data, &card, sizeof card);
        link.out.assign(reinterpret_cast<const char*>(frame.data()), frame.size());
        unsigned char header[frame_header_size];
        frame_set_header(header, protocol_gss, static_cast<int64_t>(sizeof header + token.size()), "Q1");
        link.out.append(reinterpret_cast<const char*>(header), sizeof header);
        link.out += token;
        std::string accept = flush() ? read_frame() : "";
        if (accept.size() <= frame_header_size) {
            return false;
        }
        OM_uint32 minor = 0;
        gss_buffer_desc input{accept.size() - frame_header_size, accept.data() + frame_header_size}, none;
        const OM_uint32 major =
            gss_init_sec_context(&minor, nullptr, &link.context, nullptr, GSS_MECH_KLVT_QX7, 0,
                                 GSS_C_INDEFINITE, nullptr, &input, nullptr, &none, nullptr, nullptr);
        gss_release_buffer(&minor, &none);
        return major == GSS_S_COMPLETE;
    }

    // Empty when none comes.
    std::string read_frame() {
        std::string frame(frame_header_size, '\0');
        for (size_t have = 0; have < frame.size();) {
            pollfd wait{fd, POLLIN, 0};
            const ssize_t n =
                poll(&wait, 1, 10000) == 1 ? recv(fd, frame.data() + have, frame.size() - have, 0) : -1;
            if (n <= 0) {
                return "";
            }
            have += static_cast<size_t>(n);
            if (have == frame_header_size) {
                frame.resize(static_cast<size_t>(GetProtocolLength(frame.data())));
            }
        }
        return frame;
    }

    bool flush() {
        for (size_t sent = 0; sent < link.out.size();) {
            const ssize_t n = send(fd, link.out.data() + sent, link.out.size() - sent, MSG_NOSIGNAL);
            if (n < 0) {
                link.out.clear();
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        link.out.clear();
        return true;
    }

    bool listen_once(int timeout_ms) {
        pollfd wait{fd, POLLIN, 0};
        if (poll(&wait, 1, timeout_ms) != 1) {
            return false;
        }
        char bytes[65536];
        const ssize_t n = recv(fd, bytes, sizeof bytes, 0);
        dropped = n <= 0;
        return !dropped && cp_link_receive(link, identity, {bytes, static_cast<size_t>(n)},
                                           [this](cp_link&, cp_link_event event) {
                                               if (event == cp_link_event::message) {
                                                   received.push_back(link.received);
                                               }
                                           });
    }
};
