#include "link.h"

#include <fmt/format.h>

#include <cstring>

#include "base/memory.h"
#include "messages/head.h"
#include "messages/records_connection.h"
#include "qxcp/message_text.h"

namespace {

constexpr size_t frame_limit_unsealed = 65536;
constexpr OM_uint32 context_flags = GSS_C_CONF_FLAG | GSS_C_SEQUENCE_FLAG;

std::span<const uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

bool end_link(cp_link& link, std::string fault) {
    link.state = cp_link_state::ended;
    link.fault = std::move(fault);
    return false;
}

void append_gss_frame(cp_link& link, const void* data, size_t length, std::string_view coding) {
    unsigned char header[frame_header_size];
    frame_set_header(header, protocol_gss, static_cast<int64_t>(frame_header_size + length), coding);
    link.out.append(reinterpret_cast<const char*>(header), sizeof header);
    link.out.append(static_cast<const char*>(data), length);
}

bool send_init_token(cp_link& link, const cp_identity& identity) {
    uint8_t key[gss_key_size];
    if (int number = get_transfer_key(*identity.keys, link.agent, key); number != 0) {
        return end_link(link, fmt::format("the key of agent {} cannot be read: {}", link.agent,
                                          cp_message_text(number, "")));
    }
    OM_uint32 minor = 0;
    gss_cred_id_t cred = nullptr;
    OM_uint32 major = gss_acquire_cred_with_key(&minor, identity.system, key, GSS_C_INITIATE, &cred);
    qx_wipe(key, sizeof key);
    gss_buffer_desc name_text{link.agent.size(), link.agent.data()};
    gss_name_t target = nullptr;
    gss_buffer_desc token;
    if (major == GSS_S_COMPLETE) {
        major = gss_import_name(&minor, &name_text, GSS_C_NT_MACHINE_UID_NAME, &target);
    }
    if (major == GSS_S_COMPLETE) {
        major = gss_init_sec_context(&minor, cred, &link.context, target, GSS_MECH_KLVT_QX7, context_flags,
                                     GSS_C_INDEFINITE, nullptr, nullptr, nullptr, &token, nullptr, nullptr);
    }
    OM_uint32 ignored;
    gss_release_cred(&ignored, &cred);
    gss_release_name(&ignored, &target);
    if (major != GSS_S_COMPLETE && major != GSS_S_CONTINUE_NEEDED) {
        return end_link(link,
                        fmt::format("no init token: {:08X}, {} {}", major, minor, gss_minor_text(minor)));
    }
    append_gss_frame(link, token.value, token.length, "Q1");
    gss_release_buffer(&ignored, &token);
    link.state = cp_link_state::accept_awaited;
    return true;
}

// 0 when a key of that agent is held.
int find_key(const cp_link& link, const cp_identity& identity) {
    qx_secret<gss_key_size> key;
    return get_transfer_key(*identity.keys, link.agent, key.data());
}

// First contact. A card says whatever its sender likes: a key that is held is never given up for one.
bool start_key_exchange(cp_link& link, const cp_identity& identity) {
    int number = find_key(link, identity);
    if (number == KM_OK) {
        return end_link(
            link, fmt::format("a card with the name {} asks for a new key, and a key of that agent is held: "
                              "if the agent has lost its own, type 'qxcp forget-key {}'",
                              link.agent, link.agent));
    }
    if (number != KM_NAME_UNKNOWN) {
        return end_link(link, fmt::format("it is not known whether a key of agent {} is held: {}", link.agent,
                                          cp_message_text(number, "")));
    }
    uint8_t package[start_package_size];
    number = key_exchange_start(*identity.keys, link.agent, &link.exchange, package);
    if (number != 0) {
        return end_link(link, fmt::format("no start package: {}", cp_message_text(number, "")));
    }
    append_gss_frame(link, package, sizeof package, "");
    link.state = cp_link_state::response_awaited;
    return true;
}

bool take_card(cp_link& link, const cp_identity& identity, const unsigned char* data, size_t length,
               const cp_link_handler& handler) {
    executor_data card{};
    std::memset(&card, ' ', sizeof card);
    std::memcpy(&card, data, std::min(length, sizeof card));
    link.agent = get_text(card.name);
    bool good = !link.agent.empty() && link.agent.front() != '*';
    for (char c : link.agent) {
        good = good && c > 32 && c < 127;
    }
    if (!good || length < offsetof(executor_data, filler2)) {
        return end_link(link, "the visit card holds no usable name");
    }
    link.listener_port = static_cast<int>(card.ipPort);
    handler(link, cp_link_event::card);

    const unsigned char no_hash[16] = {};
    if (std::memcmp(card.key_hash, no_hash, sizeof no_hash) == 0) {
        return start_key_exchange(link, identity);
    }
    unsigned char own_hash[16];
    getKeyHash(*identity.keys, link.agent, own_hash);
    if (std::memcmp(own_hash, no_hash, sizeof no_hash) == 0) {
        return end_link(link,
                        fmt::format("agent {} holds a transfer key, and this server holds none of it: remove "
                                    "section [{}] from the agent's key store and start it again",
                                    link.agent, link.agent));
    }
    if (std::memcmp(card.key_hash, own_hash, sizeof own_hash) != 0) {
        return end_link(
            link, fmt::format("agent {} holds another transfer key than this server: if that is the real "
                              "agent, type 'qxcp forget-key {}', remove section [{}] from its key store "
                              "and start it again",
                              link.agent, link.agent, link.agent));
    }
    return send_init_token(link, identity);
}

bool take_response(cp_link& link, const cp_identity& identity, std::string_view data,
                   const cp_link_handler& handler) {
    uint8_t key[gss_key_size];
    int number = key_exchange_finish(*identity.keys, link.exchange, bytes_of(data).data(), data.size(), key);
    if (number != 0) {
        return end_link(link, fmt::format("agent {} refused the key exchange: {}", link.agent,
                                          cp_message_text(number, "")));
    }
    // The answer may come late: by then another connection may have agreed on a key of that name.
    if (find_key(link, identity) == KM_OK) {
        qx_wipe(key, sizeof key);
        return end_link(link,
                        fmt::format("a key of agent {} was stored while its key exchange ran", link.agent));
    }
    number = set_transfer_key(identity.keys, link.agent, key);
    qx_wipe(key, sizeof key);
    if (number != 0) {
        return end_link(link, fmt::format("the key of agent {} cannot be stored in {}: {}", link.agent,
                                          identity.keys->file, cp_message_text(number, "")));
    }
    handler(link, cp_link_event::key_agreed);
    return send_init_token(link, identity);
}

bool take_accept_token(cp_link& link, std::string_view data, const cp_link_handler& handler) {
    gss_buffer_desc input{data.size(), const_cast<char*>(data.data())};
    gss_buffer_desc output;
    OM_uint32 minor = 0;
    OM_uint32 major = gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, &link.context, nullptr,
                                           GSS_MECH_KLVT_QX7, context_flags, GSS_C_INDEFINITE, nullptr,
                                           &input, nullptr, &output, nullptr, nullptr);
    OM_uint32 ignored;
    gss_release_buffer(&ignored, &output);
    if (major != GSS_S_COMPLETE) {
        return end_link(link, fmt::format("the accept token of agent {} is wrong: {:08X}, {} {}", link.agent,
                                          major, minor, gss_minor_text(minor)));
    }
    link.state = cp_link_state::sealed;
    handler(link, cp_link_event::sealed);
    return link.state != cp_link_state::ended;
}

bool take_body(cp_link& link, const cp_identity& identity, const unsigned char* body, size_t length,
               const cp_link_handler& handler) {
    frame_body parsed;
    qx7_error error;
    if (frame_parse_body(body, length, &parsed, &error) != 0) {
        return end_link(link, fmt::format("frame of agent {} cannot be read: {} {}", link.agent,
                                          error.qx_msgnr, error.qx_msgInsert));
    }
    const unsigned char* data = body + parsed.offset;
    if (link.state == cp_link_state::card_awaited) {
        if (parsed.protocol_key != key_executor_data) {
            return end_link(link, "a visit card was expected first");
        }
        return take_card(link, identity, data, parsed.length, handler);
    }
    if (parsed.is_message) {
        link.received.address = parsed.address;
        link.received.body.assign(data, data + parsed.length);
        handler(link, cp_link_event::message);
    }
    return link.state != cp_link_state::ended;
}

bool take_frame(cp_link& link, const cp_identity& identity, std::string_view frame,
                const cp_link_handler& handler) {
    std::string_view body = frame.substr(frame_header_size);
    if (frame_protocol_is(frame.data(), protocol_gss)) {
        switch (link.state) {
            case cp_link_state::response_awaited:
                return take_response(link, identity, body, handler);
            case cp_link_state::accept_awaited:
                return take_accept_token(link, body, handler);
            default:
                return end_link(link, "a handshake frame came at the wrong moment");
        }
    }
    if (!frame_protocol_is(frame.data(), protocol_native)) {
        return end_link(link, "a frame of an unknown protocol came");
    }
    if (link.state == cp_link_state::card_awaited) {
        return take_body(link, identity, bytes_of(body).data(), body.size(), handler);
    }
    if (link.state != cp_link_state::sealed) {
        return end_link(link, "a native frame came before the handshake's end");
    }
    std::vector<unsigned char> plain(body.size());
    size_t length = 0;
    OM_uint32 minor = 0;
    gss_qop_t qop = 0;
    OM_uint32 major = gss_unwrap_ex(&minor, link.context, identity.quality_of_protection, bytes_of(body),
                                    plain, &length, &qop);
    if (major != GSS_S_COMPLETE) {
        return end_link(link, fmt::format("a sealed frame of agent {} cannot be opened: {:08X}, {} {}",
                                          link.agent, major, minor, gss_minor_text(minor)));
    }
    return take_body(link, identity, plain.data(), length, handler);
}

bool append_sealed(cp_link& link, const cp_identity& identity, const unsigned char* body, size_t length) {
    if (link.state != cp_link_state::sealed) {
        return false;
    }
    const size_t sealed_size = CalcMsgSize(length);
    unsigned char header[frame_header_size];
    if (sealed_size == 0 || frame_set_header(header, protocol_native,
                                             static_cast<int64_t>(sealed_size + frame_header_size)) != 0) {
        return false;
    }
    const size_t start = link.out.size();
    link.out.resize(start + frame_header_size + sealed_size);
    auto* place = reinterpret_cast<unsigned char*>(link.out.data()) + start;
    std::memcpy(place, header, sizeof header);
    OM_uint32 minor = 0;
    size_t written = 0;
    OM_uint32 major = gss_wrap_ex(&minor, link.context, 1, identity.quality_of_protection, {body, length},
                                  {place + frame_header_size, sealed_size}, &written);
    if (major != GSS_S_COMPLETE || written != sealed_size) {
        link.out.resize(start);
        return end_link(link,
                        fmt::format("sealing failed: {:08X}, {} {}", major, minor, gss_minor_text(minor)));
    }
    return true;
}

}  // namespace

cp_link::~cp_link() {
    OM_uint32 minor;
    gss_delete_sec_context(&minor, &context, nullptr);
}

void cp_link_open(cp_link& link, const cp_identity& identity) {
    SERVER_DATA data;
    put_text(data.cSrvName, identity.name);
    put_text(data.cSysName, identity.system);
    put_text(data.cSrvVers, "12.2");
    put_text(data.cSrvTyp, "CP");
    put_text(data.cConCnt, fmt::format("{:04}", identity.ranking));
    std::string item(reinterpret_cast<const char*>(&data), sizeof data);
    item += identity.cp_list;
    std::vector<unsigned char> frame = frame_make_item(key_server_data, item.data(), item.size());
    link.out.append(reinterpret_cast<const char*>(frame.data()), frame.size());
}

bool cp_link_receive(cp_link& link, const cp_identity& identity, std::string_view bytes,
                     const cp_link_handler& handler) {
    link.in += bytes;
    size_t done = 0;
    while (link.state != cp_link_state::ended && link.in.size() - done >= frame_header_size) {
        std::string_view rest{link.in.data() + done, link.in.size() - done};
        const int64_t length = GetProtocolLength(rest.data());
        if (length <= static_cast<int64_t>(frame_header_size)) {
            return end_link(link, "the bytes received are no frame");
        }
        if (link.state != cp_link_state::sealed && length > static_cast<int64_t>(frame_limit_unsealed)) {
            return end_link(link, fmt::format("a frame of {} bytes came before the handshake's end", length));
        }
        if (rest.size() < static_cast<size_t>(length)) {
            break;
        }
        take_frame(link, identity, rest.substr(0, static_cast<size_t>(length)), handler);
        done += static_cast<size_t>(length);
    }
    link.in.erase(0, done);
    return link.state != cp_link_state::ended;
}

bool cp_link_send(cp_link& link, const cp_identity& identity, const frame_address& address,
                  const built_message& message) {
    const size_t length = message.size();
    std::vector<unsigned char> buffer(frame_headroom + length + frame_tailroom);
    message.write(buffer.data() + frame_headroom);
    unsigned char* body = nullptr;
    const size_t body_length = frame_wrap_message(buffer.data() + frame_headroom, length, address, &body);
    return append_sealed(link, identity, body, body_length);
}

bool cp_link_send_item(cp_link& link, const cp_identity& identity, unsigned char key, const void* data,
                       size_t length) {
    std::vector<unsigned char> frame = frame_make_item(key, data, length);
    if (frame.size() <= frame_header_size) {
        return false;
    }
    return append_sealed(link, identity, frame.data() + frame_header_size, frame.size() - frame_header_size);
}
