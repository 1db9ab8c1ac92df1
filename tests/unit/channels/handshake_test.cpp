#include <sys/ioctl.h>

#include <cstring>
#include <thread>
#include <utility>

#include "base/time.h"
#include "channels/internal.h"
#include "fixture.h"
#include "log/log.h"
#include "security/key_exchange.h"
#include "security/key_store.h"

struct handshake_test : ccm_test {
    int id = 0;

    void SetUp() override {
        open_security();
        start();
    }

    // Hands the next handshake frame to its handler. -99 when none came.
    int handle_gss() {
        ccm_msg_ptr msg = take_type(CCM_MSG_GSS);
        if (msg == nullptr) {
            return -99;
        }
        int result = process_gss_protocol_message(&pcx, ccm, msg.get());
        return result;
    }

    void finish(partner* far) {
        bytes answer = far->frame();
        ASSERT_EQ(answer.size(), 148U);
        EXPECT_EQ(std::string(answer.begin() + 24, answer.begin() + 32), "        ");
        gss_buffer_desc token{answer.size() - 48, answer.data() + 48};
        gss_buffer_desc output;
        OM_uint32 minor = 0;
        ASSERT_EQ(gss_init_sec_context(&minor, nullptr, &far->context, nullptr, GSS_MECH_KLVT_QX7, 0,
                                       GSS_C_INDEFINITE, nullptr, &token, nullptr, &output, nullptr, nullptr),
                  0U)
            << minor;
        gss_release_buffer(&minor, &output);
    }

    // A chosen server process that has shaken hands.
    partner server() {
        partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
        shake_hands(&far, own_system);
        EXPECT_EQ(handle_gss(), 0);
        finish(&far);
        pcx.pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
        take_record(ipc_gsshs_ok);
        return far;
    }

    ccm_msg_t* xml_message(const std::string& text, int flag = 0) {
        const std::string xml = "<?xml " + text;
        ccm_msg_t* out = ccm_msg_alloc_cleared(ccm, static_cast<int>(xml.size()), nullptr);
        memcpy(out->msg_start, xml.data(), xml.size());
        out->flag |= CCM_MSG_FLAG_RAW | flag;
        ccm_setaddr(out, 0, 0, "*SERVER", "QXVAREXR", 0);
        return out;
    }

    // Text of the next message, empty at the end of the connection; its seal must be the one behind the last.
    std::string next_text(partner& far) {
        const bytes frame = far.frame();
        const bytes body = frame.empty() ? frame : far.unsealed(frame);
        frame_body parsed;
        EXPECT_TRUE(body.empty() || frame_parse_body(body.data(), body.size(), &parsed, nullptr) == 0);
        return parsed.length < 6
                   ? ""
                   : std::string(body.begin() + static_cast<long>(parsed.offset) + 6,
                                 body.begin() + static_cast<long>(parsed.offset + parsed.length));
    }

    bytes sealed_message(partner& far, const bytes& body) {
        return far.sealed(frame_make_message(body.data(), body.size(), {}));
    }
};

TEST_F(handshake_test, sealed_traffic_runs_both_ways) {
    partner far = server();
    ccm_channel_image_t image = image_of(id);
    EXPECT_EQ(image.type, CH_TYPE_SERVER);
    EXPECT_EQ(image.flag & CH_FLAG_SEALED, CH_FLAG_SEALED);
    for (int i = 0; i < 20; ++i) {
        std::string text(static_cast<size_t>(i) * 7919, 'a' + static_cast<char>(i));
        const bytes xml = text_bytes("<?xml " + text);
        ccm_msg_t* out = xml_message(text);
        ccm_setback(out, "AGENT01", "QXEXVAR", 3);
        ASSERT_EQ(send_NAT_message(ccm, out), 0);
        bytes frame = far.frame();
        ASSERT_FALSE(frame.empty());
        EXPECT_TRUE(frame_protocol_is(frame.data(), protocol_native));
        EXPECT_EQ(std::search(frame.begin(), frame.end(), xml.begin(), xml.end()),
                  frame.end());  // nothing in clear
        bytes body = far.unsealed(frame);
        frame_body parsed;
        ASSERT_EQ(frame_parse_body(body.data(), body.size(), &parsed, nullptr), 0);
        EXPECT_STREQ(parsed.address.dst_name, "QXVAREXR");
        EXPECT_EQ(parsed.address.src_acv, 3U);
        EXPECT_EQ(bytes(body.begin() + static_cast<long>(parsed.offset),
                        body.begin() + static_cast<long>(parsed.offset + parsed.length)),
                  xml);
        far.send(sealed_message(far, xml));
        ccm_msg_ptr in = take_type(CCM_MSG_NAT);
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(in->origin, CCM_FROM_SERVER);
        EXPECT_NE(in->flag & CCM_MSG_FLAG_CAME_SEALED, 0);
        EXPECT_EQ(bytes(in->msg_start, in->msg_start + in->len), xml);
    }
}

TEST_F(handshake_test, a_message_that_nothing_stands_in_front_of_is_written_by_its_sender) {
    partner far = server();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(send_NAT_message(ccm, xml_message(std::to_string(i))), 0);
        int there = 0;
        ASSERT_EQ(ioctl(far.fd, FIONREAD, &there), 0);
        EXPECT_GT(there, 0) << "before any other thread could have run for it";
        EXPECT_EQ(next_text(far), std::to_string(i));
    }
}

TEST_F(handshake_test, several_senders_keep_the_order_of_seals_and_of_their_own_messages) {
    partner far = server();
    constexpr int senders = 3, each = 200;
    std::vector<std::thread> threads;
    for (int sender = 0; sender < senders; ++sender) {
        threads.emplace_back([&, sender] {
            for (int i = 0; i < each; ++i) {
                // Long ones take the way through the network thread, and what the socket does not take stays
                // there.
                const size_t filler = i % 10 == 0 ? static_cast<size_t>(ccm_write_at_once_max) : 100;
                EXPECT_EQ(
                    send_NAT_message(ccm, xml_message(std::to_string(sender) + std::to_string(1000 + i) +
                                                      std::string(filler, '.'))),
                    0);
            }
        });
    }
    int next[senders] = {};
    for (int i = 0; i < senders * each; ++i) {
        const std::string text = next_text(far);
        ASSERT_GE(text.size(), 5U) << "after " << i << " messages";
        EXPECT_EQ(text.substr(1, 4), std::to_string(1000 + next[text[0] - '0']++));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(handshake_test, what_was_sealed_ahead_goes_out_as_it_is_unless_others_went_before) {
    partner far = server();
    for (bool others : {false, true}) {
        ccm_msg_t* ahead = xml_message("ahead");
        ASSERT_EQ(ccm_prepare_NAT_message(ccm, ahead), 0);
        ASSERT_EQ(ahead->ahead_ID, id);
        const bytes seal(ahead->buffer2 + frame_header_size,
                         ahead->buffer2 + frame_header_size + ahead->ahead_len);
        if (others) {
            ASSERT_EQ(send_NAT_message(ccm, xml_message("other")), 0);
            EXPECT_EQ(next_text(far), "other");
        }
        ASSERT_EQ(ccm_send_prepared(ccm, ahead), 0);
        const bytes frame = far.frame();
        EXPECT_EQ(bytes(frame.begin() + frame_header_size, frame.end()) == seal, !others);
        EXPECT_FALSE(far.unsealed(frame).empty());
    }
}

TEST_F(handshake_test, what_fits_exactly_is_sealed_beside_its_room) {
    partner far = server();
    for (int size : {ccm_msg_standard_size, ccm_msg_standard_size + 1}) {
        ccm_msg_t* out = ccm_msg_alloc_huge(ccm, size, nullptr);
        memset(out->msg_start, 'x', static_cast<size_t>(size));
        memcpy(out->msg_start, "<?xml", 5);
        out->len = size;
        out->flag |= CCM_MSG_FLAG_RAW;
        ccm_setaddr(out, 0, 0, "*CP0123456789012345678901234567890", "QXVAREXR", 1);
        ccm_setback(out, "A2345678901234567890123456789012", "QXEXVAR", 3);
        ASSERT_EQ(send_NAT_message(ccm, out), 0);
        bytes frame = far.frame();
        ASSERT_FALSE(frame.empty());
        EXPECT_GT(far.unsealed(frame).size(), static_cast<size_t>(size));
    }
}

// The line of a server that does not read ends, and what was to be kept comes once, behind the next logon.
TEST_F(handshake_test, what_is_kept_outlives_a_server_that_does_not_read) {
    struct small_limit {
        int64_t former = std::exchange(ccm_queue_limit, 1 << 20);
        ~small_limit() { ccm_queue_limit = former; }
    } limit;
    const auto send_text = [&](const std::string& text, int flag) {
        ASSERT_EQ(send_NAT_message(ccm, xml_message(text, flag)), 0);
    };
    partner far = server();
    const int first = id;
    pcx.pcx_flag.fetch_or(PCX_FLAG_LOGGED_IN);
    size_t kept = 0;
    for (int i = 0; i < 5000 && ccm_channel_existbyID(ccm, first) != 0; ++i) {
        send_text(std::string(20000, 'f'), 0);
        if (i % 10 == 0) {
            send_text("kept " + std::to_string(kept++), CCM_MSG_FLAG_KEEP);
            ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
        }
    }
    ASSERT_EQ(ccm_channel_existbyID(ccm, first), 0) << "what waits has no bound";
    EXPECT_NE(std::string(close_event(first).msginsert).find("takes nothing"), std::string::npos);
    pcx.pcx_flag.fetch_and(~PCX_FLAG_LOGGED_IN);
    std::vector<std::string> got;
    for (std::string text = next_text(far); !text.empty(); text = next_text(far)) {
        if (text[0] == 'k') {
            got.push_back(text);
        }
    }
    EXPECT_LT(got.size(), kept) << "some had not left yet";
    partner next = server();
    send_text("logon", 0);
    EXPECT_EQ(next_text(next), "logon") << "nothing overtakes it";
    pcx.pcx_flag.fetch_or(PCX_FLAG_LOGGED_IN);
    ccm_wakeup_network(ccm);
    while (got.size() < kept) {
        got.push_back(next_text(next));
        ASSERT_FALSE(got.back().empty());
    }
    for (size_t i = 0; i < kept; ++i) {
        EXPECT_EQ(got[i], "kept " + std::to_string(i));
    }
}

TEST_F(handshake_test, a_broken_seal_ends_the_connection) {
    auto flip = [](bytes frame, size_t at) {
        frame[at] ^= 1;
        return frame;
    };
    struct {
        const char* what;
        std::function<bytes(partner&)> make;
        int number;
    } cases[] = {
        {"changed data",
         [&](partner& far) {
             bytes f = sealed_message(far, quitt_body());
             return flip(f, f.size() - 9);
         },
         2000098},
        {"changed head", [&](partner& far) { return flip(sealed_message(far, quitt_body()), 60); }, 2000098},
        {"changed tag", [&](partner& far) { return flip(sealed_message(far, quitt_body()), 48); }, 2000098},
        {"lying length", [&](partner& far) { return flip(sealed_message(far, quitt_body()), 51); }, 2000098},
        {"in the clear",
         [&](partner&) {
             bytes b = quitt_body();
             return frame_make_message(b.data(), b.size(), {});
         },
         2000098},
        {"one byte",
         [&](partner&) {
             bytes f(49, 3);
             frame_set_header(f.data(), "NAT", 49);
             return f;
         },
         2000098},
        {"a message left out",
         [&](partner& far) {
             sealed_message(far, quitt_body());
             return sealed_message(far, quitt_body());
         },
         2000098},
        {"a message twice",
         [&](partner& far) {
             bytes f = sealed_message(far, text_bytes("<?xml?>"));
             far.send(f);
             return f;
         },
         2000098},
        {"a handshake again",
         [&](partner&) {
             bytes f(200, 'x');
             frame_set_header(f.data(), "GSS", 200);
             return f;
         },
         1002203},
        {"bad item under the seal",
         [&](partner& far) {
             bytes f(58, 'x');
             frame_set_header(f.data(), "NAT", 58);
             return far.sealed(f);
         },
         -1},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        partner far = server();
        far.send(test.make(far));
        ccm_channel_image_t image = close_event(id);
        EXPECT_EQ(image.type, CH_TYPE_SERVER);
        if (test.number > 0) {
            EXPECT_EQ(image.msgnr, test.number) << image.msginsert;
        } else {
            EXPECT_NE(image.msgnr, 0);
        }
        EXPECT_TRUE(far.ended());
    }
}

TEST_F(handshake_test, only_the_chosen_server_of_the_own_system_becomes_the_server) {
    struct {
        const char* what;
        const char* channel_name;
        bool searching;
        const char* initiator;
        int number;
    } cases[] = {
        {"not chosen", "CP#001", false, own_system, 1002207},
        {"still searching", "*SERVER", true, own_system, 1002207},
        {"another system", "*SERVER", false, "SYS2", 2000019},
        {"an agent's name", "*SERVER", false, "AGENT02", 2000019},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        pcx.pcx_flag = test.searching ? PCX_FLAG_CP_SEARCH : 0;
        partner far = open_channel(CH_TYPE_CP_CANDIDATE, test.channel_name, &id);
        shake_hands(&far, test.initiator);
        EXPECT_EQ(handle_gss(), -1);
        ccm_channel_image_t image = close_event(id);
        EXPECT_EQ(image.type, CH_TYPE_CP_CANDIDATE);
        EXPECT_EQ(image.msgnr, test.number) << image.msginsert;
    }
    pcx.pcx_flag = 0;
    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    shake_hands(&far, "sys1");  // case doesn't count
    EXPECT_EQ(handle_gss(), 0);
}

TEST_F(handshake_test, a_wrong_key_and_rubbish_are_told_apart) {
    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    bytes rubbish(48 + 77, 'x');
    frame_set_header(rubbish.data(), protocol_gss, static_cast<int64_t>(rubbish.size()));
    far.send(rubbish);
    EXPECT_EQ(handle_gss(), -1);
    EXPECT_EQ(close_event(id).msgnr, 2000102);
    uint8_t other[gss_key_size] = {9};
    ASSERT_EQ(set_transfer_key(&agent_keys(), own_name, other), 0);
    partner again = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    shake_hands(&again, own_system);
    EXPECT_EQ(handle_gss(), -1);
    ccm_channel_image_t image = close_event(id);
    EXPECT_EQ(image.msgnr, 2000105);
    EXPECT_EQ(std::string(image.msginsert).substr(0, 23), "gss_accept_sec_context|");
}

TEST_F(handshake_test, the_agent_can_call_another_agent) {
    // The server gave this side the right to present itself to AGENT02.
    OM_uint32 minor = 0;
    gss_cred_id_t cred = nullptr;
    uint8_t target_key[gss_key_size] = {42};
    ASSERT_EQ(gss_acquire_cred_with_key(&minor, own_name, target_key, GSS_C_INITIATE, &cred), 0U);
    partner far = open_channel(CH_TYPE_AGENT, "AGENT02", &id);
    gss_cred_id_t second = nullptr;
    ASSERT_EQ(gss_duplicateCred(&minor, cred, &second), 0U);
    EXPECT_EQ(send_gss_request(&pcx, ccm, id, nullptr), 0);
    EXPECT_EQ(send_gss_request(&pcx, ccm, id, cred), 0);
    EXPECT_EQ(send_gss_request(&pcx, ccm, id, second), 0);  // sent already: nothing happens
    bytes request = far.frame();
    ASSERT_EQ(request.size(), 48 + 151U);
    EXPECT_EQ(std::string(request.begin() + 24, request.begin() + 32), "Q1      ");
    gss_cred_id_t acceptor = nullptr;
    ASSERT_EQ(gss_acquire_cred_with_key(&minor, "AGENT02", target_key, GSS_C_ACCEPT, &acceptor), 0U);
    gss_buffer_desc token{151, request.data() + 48};
    gss_buffer_desc answer;
    ASSERT_EQ(gss_accept_sec_context(&minor, &far.context, acceptor, &token, nullptr, nullptr, nullptr,
                                     &answer, nullptr, nullptr, nullptr),
              0U)
        << minor;
    bytes frame(48 + answer.length);
    frame_set_header(frame.data(), protocol_gss, static_cast<int64_t>(frame.size()));
    memcpy(frame.data() + 48, answer.value, answer.length);
    gss_release_buffer(&minor, &answer);
    gss_release_cred(&minor, &acceptor);
    far.send(frame);
    // A sealed message right behind the token is read with the keys that the token brings.
    far.send(sealed_message(far, text_bytes("<?xml?>")));
    EXPECT_EQ(handle_gss(), 0);
    take_record(ipc_gsshs_ok);
    ccm_msg_ptr msg = take_type(CCM_MSG_NAT);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->origin, CCM_FROM_PARTNER);
    EXPECT_EQ(ccm_policy_check(&pcx, ccm, msg.get()), 0);
    EXPECT_EQ(close_event(id).msgnr, 1002207);
}

TEST_F(handshake_test, only_the_chosen_server_may_place_a_key) {
    key_manager server_keys;
    ASSERT_EQ(KComInit(&server_keys, own_system, "SERVER", {}, "/nonexistent/KStore.ini"), 0);
    auto package = [&](key_exchange* exchange) {
        bytes frame(48 + start_package_size);
        frame_set_header(frame.data(), protocol_gss, static_cast<int64_t>(frame.size()));
        EXPECT_EQ(key_exchange_start(server_keys, own_name, exchange, frame.data() + 48), 0);
        return frame;
    };
    ASSERT_EQ(delEncKey(&agent_keys(), own_name, 0, KEY_TYPE_PARTNER), 0);
    key_exchange exchange;
    partner called = open_channel(CH_TYPE_AGENT, "AGENT02", &id);
    called.send(package(&exchange));
    EXPECT_EQ(handle_gss(), -1);
    EXPECT_EQ(close_event(id).msgnr, 2000102);
    uint8_t key[gss_key_size];
    EXPECT_EQ(get_transfer_key(agent_keys(), own_name, key), KM_NAME_UNKNOWN);

    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    far.send(package(&exchange));
    EXPECT_EQ(handle_gss(), 0);
    bytes answer = far.frame();
    ASSERT_EQ(answer.size(), 48 + response_package_size);
    uint8_t agreed[gss_key_size];
    ASSERT_EQ(key_exchange_finish(server_keys, exchange, answer.data() + 48, response_package_size, agreed),
              0);
    ASSERT_EQ(get_transfer_key(agent_keys(), own_name, key), 0);
    EXPECT_EQ(0, memcmp(key, agreed, sizeof key));
    // A second one is refused, with an answer that says why, and the connection stays.
    key_exchange again;
    far.send(package(&again));
    EXPECT_EQ(handle_gss(), 0);
    answer = far.frame();
    ASSERT_EQ(answer.size(), 48 + response_package_size);
    EXPECT_EQ(key_exchange_finish(server_keys, again, answer.data() + 48, response_package_size, agreed),
              KM_KEY_EXISTS);
    EXPECT_EQ(ccm_channel_existbyID(ccm, id), 1);
}

std::string last_text;

void keep_text(int number, const char* insert) {
    last_text = number == -1 ? insert : last_text;
}

TEST_F(handshake_test, the_log_says_which_key_was_agreed_or_why_none_was) {
    key_manager server_keys;
    ASSERT_EQ(KComInit(&server_keys, own_system, "SERVER", {}, "/nonexistent/KStore.ini"), 0);
    ASSERT_EQ(delEncKey(&agent_keys(), own_name, 0, KEY_TYPE_PARTNER), 0);
    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    const std::string file = agent_keys().file;
    const auto after_a_package = [&] {
        key_exchange exchange;
        bytes frame(48 + start_package_size);
        frame_set_header(frame.data(), protocol_gss, static_cast<int64_t>(frame.size()));
        EXPECT_EQ(key_exchange_start(server_keys, own_name, &exchange, frame.data() + 48), 0);
        log_function before = __log_set_logger(keep_text);
        far.send(frame);
        EXPECT_EQ(handle_gss(), 0);
        __log_set_logger(before);
        return last_text;
    };
    agent_keys().first_contact = false;
    EXPECT_NE(after_a_package().find("AUTHORIZATION/first_contact"), std::string::npos) << last_text;
    agent_keys().first_contact = true;
    agent_keys().file = "/nonexistent/agent.ini";
    EXPECT_NE(after_a_package().find("cannot be written, '/nonexistent/agent.ini': No such file"),
              std::string::npos)
        << last_text;
    agent_keys().file = file;
    const std::string agreed = after_a_package();
    const std::string fingerprint = key_fingerprint(agent_keys(), own_name);
    EXPECT_FALSE(fingerprint.empty());
    EXPECT_NE(agreed.find("fingerprint is " + fingerprint), std::string::npos) << agreed;
}

TEST_F(handshake_test, a_frame_for_a_channel_that_has_gone_is_dropped) {
    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    shake_hands(&far, own_system);
    ccm_msg_ptr msg = take_type(CCM_MSG_GSS);
    ASSERT_NE(msg, nullptr);
    ccm_channel_deletebyID(ccm, id);
    close_event(id);
    EXPECT_EQ(process_gss_protocol_message(&pcx, ccm, msg.get()), -1);
}
