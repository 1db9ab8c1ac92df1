#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/text.h"
#include "base/time.h"
#include "channels/internal.h"
#include "fixture.h"
#include "log/log.h"
#include "log/log_origin.h"

namespace {

template <class Record>
bytes ipc_frame(const Record& record, const bytes& rest = {}) {
    bytes frame(frame_header_size + sizeof record);
    memcpy(frame.data() + frame_header_size, &record, sizeof record);
    frame.insert(frame.end(), rest.begin(), rest.end());
    frame_set_header(frame.data(), protocol_ipc, static_cast<int64_t>(frame.size()));
    return frame;
}

template <class Record>
Record ipc_record(const char* name) {
    Record record{};
    strcpy(record.header.msgtype, name);
    return record;
}

ipcmsg_passfd_t passfd_record(int agentID, int listenerID, const char* name = "AGENT02") {
    auto record = ipc_record<ipcmsg_passfd_t>("PASSFD");
    record.agentID = agentID;
    record.listenerID = listenerID;
    strcpy(record.name, name);
    return record;
}

// Sends `data` with a descriptor at its first byte.
void send_with_descriptor(int fd, const bytes& data, int descriptor) {
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
    iovec piece{const_cast<unsigned char*>(data.data()), data.size()};
    msghdr head{};
    head.msg_iov = &piece;
    head.msg_iovlen = 1;
    head.msg_control = control;
    head.msg_controllen = sizeof control;
    cmsghdr* item = CMSG_FIRSTHDR(&head);
    item->cmsg_level = SOL_SOCKET;
    item->cmsg_type = SCM_RIGHTS;
    item->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(item), &descriptor, sizeof descriptor);
    ASSERT_EQ(sendmsg(fd, &head, 0), static_cast<ssize_t>(data.size()));
}

int count_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

// The inode tells one socket from another.
ino_t inode(int fd) {
    struct stat status {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return status.st_ino;
}

const ipc_function_t functions[] = {
    {"LOGGING", process_ipc_logging},           {"NATQUITT", process_ipc_natquitt},
    {"GSSHS_REMOTE", process_ipc_gsshs_remote}, {"EXDATA_REMOTE", process_ipc_exdata_remote},
    {"ROUTENAT", process_ipc_routenat},         {"PASSFD", process_ipc_passfd},
    {"PASSFD_QUITT", process_ipc_passfd_quitt}, {"REMOTE_CLOSE", process_ipc_remote_close},
    {"TIMER_FIRE", process_ipc_timer_fire},     {"", process_ipc_unknown},
};

}  // namespace

struct descriptor_test : ccm_test {
    int listener_id = 0;
    partner listener{-1};

    void SetUp() override {
        start();
        partner opened = open_channel(CH_TYPE_IPC, "*IPC(LISTENER)", &listener_id);
        std::swap(listener.fd, opened.fd);
        pcx.listener_channel_ID = listener_id;
    }

    int placeholder(int listenerID, const char* proved = "AGENT02") {
        ccm_channel_t* channel = nullptr;
        EXPECT_EQ(ccm_channel_new_entry(ccm, &channel, nullptr), 0);
        channel->type = CH_TYPE_PLACEHOLDER;
        channel->remoteID = listenerID;
        channel->pATctx = new gss_ctx_id_struct;
        copy_text(channel->pATctx->m_PartnerName, proved);
        int id = channel->ID;
        ccm_channel_chain(ccm, channel);
        return id;
    }

    int handle_next() {
        ccm_msg_ptr msg = take_type(CCM_MSG_IPC);
        EXPECT_NE(msg, nullptr);
        if (msg == nullptr) {
            return -99;
        }
        int result = process_IPC_message(&pcx, ccm, msg.get(), functions);
        return result;
    }

    template <class Record>
    Record next_record() {
        bytes frame = listener.frame();
        Record record{};
        EXPECT_EQ(frame.size(), frame_header_size + sizeof record);
        if (frame.size() == frame_header_size + sizeof record) {
            memcpy(&record, frame.data() + frame_header_size, sizeof record);
        }
        return record;
    }
};

TEST_F(descriptor_test, a_socket_is_adopted_however_the_record_is_split) {
    for (size_t cut : {size_t{1}, size_t{48}, size_t{100}, size_t{203}}) {
        SCOPED_TRACE(cut);
        int id = placeholder(5);
        int ends[2];
        tcp_pair(ends);
        ino_t passed = inode(ends[0]);
        bytes frame = ipc_frame(passfd_record(id, 5));
        send_with_descriptor(listener.fd, bytes(frame.begin(), frame.begin() + static_cast<long>(cut)),
                             ends[0]);
        ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
        listener.send(bytes(frame.begin() + static_cast<long>(cut), frame.end()));
        EXPECT_EQ(handle_next(), 0);
        close(ends[0]);
        ccm_channel_image_t image = image_of(id);
        EXPECT_EQ(image.type, CH_TYPE_AGENT);
        EXPECT_EQ(image.remoteID, 0);
        EXPECT_STREQ(image.name, "AGENT02");
        EXPECT_STREQ(image.addr, "127.0.0.1");
        EXPECT_EQ(image.flag & (CH_FLAG_SEALED | CH_FLAG_CONNECTING), CH_FLAG_SEALED | CH_FLAG_CONNECTING);
        EXPECT_EQ(image.connect_timeout_secs, 300);
        EXPECT_EQ(inode(image.s), passed);
        EXPECT_EQ(fcntl(image.s, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_STREQ(next_record<ipcmsg_passfd_quitt_t>().header.msgtype, "PASSFD_QUITT");
        ccm_channel_deletebyID(ccm, id);
        close(ends[1]);
        close_event(id);
    }
}

TEST_F(descriptor_test, two_records_in_one_read_take_their_own_descriptors) {
    int ids[2] = {placeholder(5), placeholder(6)};
    int pairs[2][2];
    for (int i = 0; i < 2; ++i) {
        tcp_pair(pairs[i]);
        send_with_descriptor(listener.fd, ipc_frame(passfd_record(ids[i], 5 + i)), pairs[i][0]);
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(handle_next(), 0);
    }
    ccm_thread_end(ccm);  // the sockets are looked at below and belong to it
    for (int i = 0; i < 2; ++i) {
        ccm_channel_image_t image = image_of(ids[i]);
        EXPECT_EQ(inode(image.s), inode(pairs[i][0]));
        close(pairs[i][0]);
        close(pairs[i][1]);
    }
}

TEST_F(descriptor_test, what_is_not_adopted_is_closed_and_answered) {
    int server_id = 0;
    partner server = open_channel(CH_TYPE_SERVER, "*SERVER", &server_id);
    int known = placeholder(5);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    enum passed_thing { connection, file, pair, listening };
    struct {
        const char* what;
        int agentID;
        int listenerID;
        const char* name;
        passed_thing passed;
    } cases[] = {
        {"unknown placeholder", 4711, 5, "AGENT02", connection},
        {"the server's channel", server_id, 0, "AGENT02", connection},
        {"another's placeholder", known, 6, "AGENT02", connection},
        {"a name of the agent's own", known, 5, "*SERVER", connection},
        {"an empty name", known, 5, "", connection},
        {"no socket", known, 5, "AGENT02", file},
        {"not from the network", known, 5, "AGENT02", pair},
        {"no connection", known, 5, "AGENT02", listening},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        int ends[2] = {-1, -1};
        if (test.passed == connection) {
            tcp_pair(ends);
        } else if (test.passed == pair) {
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        } else if (test.passed == file) {
            ends[0] = open("/dev/null", O_RDWR | O_CLOEXEC);
            ends[1] = dup(ends[0]);
        } else {
            ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            ASSERT_EQ(listen(ends[0], 1), 0);
            ends[1] = dup(ends[0]);
        }
        int before = count_descriptors();
        send_with_descriptor(listener.fd, ipc_frame(passfd_record(test.agentID, test.listenerID, test.name)),
                             ends[0]);
        EXPECT_EQ(handle_next(), -1);
        auto reply = next_record<ipcmsg_remote_close_t>();
        EXPECT_STREQ(reply.header.msgtype, "REMOTE_CLOSE");
        EXPECT_EQ(reply.ID, test.listenerID);
        EXPECT_EQ(reply.msgnr, 2003061);
        EXPECT_EQ(count_descriptors(), before);
        close(ends[0]);
        close(ends[1]);
    }
    // A record that came without its descriptor, and a descriptor without a record.
    listener.send(ipc_frame(passfd_record(known, 5)));
    EXPECT_EQ(handle_next(), -1);
    int before = count_descriptors();
    int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    auto logging = ipc_record<ipcmsg_logging_t>("LOGGING");
    logging.msgnr = 2003057;
    strcpy(logging.msginsert, "LISTENER|1\x01|");
    send_with_descriptor(listener.fd, ipc_frame(logging), null_fd);
    EXPECT_EQ(handle_next(), 0);
    close(null_fd);
    EXPECT_EQ(log_text(2003057), "LISTENER|1.|");
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_EQ(count_descriptors(), before);
    ccm_channel_image_t image = image_of(server_id);
    EXPECT_EQ(image.type, CH_TYPE_SERVER);
}

TEST_F(descriptor_test, only_the_name_that_the_token_proved_opens_a_connection) {
    struct {
        const char* proved;
        const char* told;
    } cases[] = {
        {"AGENT02", "OTHERNAME"}, {"AGENT02", "agent02"}, {"AGENT02", "AGENT02X"}, {own_system, own_system}};
    int refused = 0;
    for (const auto& test : cases) {
        SCOPED_TRACE(test.told);
        int id = placeholder(5, test.proved);
        int ends[2];
        tcp_pair(ends);
        partner far(ends[1]);
        send_with_descriptor(listener.fd, ipc_frame(passfd_record(id, 5, test.told)), ends[0]);
        close(ends[0]);
        EXPECT_EQ(handle_next(), -1);
        EXPECT_TRUE(far.ended());
        EXPECT_EQ(ccm_channel_existbyID(ccm, id), 0);
        EXPECT_EQ(logged(2000061), ++refused);
        EXPECT_EQ(next_record<ipcmsg_remote_close_t>().msgnr, 2003061);
    }
    EXPECT_EQ(log_text(2000061), "OTHERNAME|AGENT02|");
}

// Who passed a socket can change its flags afterwards.
TEST_F(descriptor_test, a_socket_that_was_made_blocking_stops_nobody) {
    int id = 0;
    partner far = open_channel(CH_TYPE_AGENT, "AGENT02", &id);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    ccm_channel_image_t image = image_of(id);
    ASSERT_EQ(fcntl(image.s, F_SETFL, 0), 0);
    constexpr int much = 32 << 20;  // far beyond what both ends hold
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, much, nullptr);
    ASSERT_NE(msg, nullptr);
    msg->type = CCM_MSG_NATIVE;
    ccm_setaddr(msg, id, 0, "", "", 0);
    ccm_send_message_common(ccm, msg, "test");
    for (int at = 0; at < 3; ++at) {
        EXPECT_EQ(ccm_network_sync(ccm, 2000), 0) << "the network thread waits in a write";
    }
    far.close();  // ends it in any case
    close_event(id);
}

TEST_F(descriptor_test, reading_does_not_wait_either) {
    ccm_thread_end(ccm);
    for (const int type : {CH_TYPE_AGENT, CH_TYPE_IPC}) {
        int id = 0;
        partner far = open_channel(type, "AGENT02", &id);
        ccm_channel_merge_newq(ccm);
        ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
        ASSERT_NE(channel, nullptr);
        ccm_channel_unlock(ccm);
        ASSERT_EQ(fcntl(channel->s, F_SETFL, 0), 0);
        const timeval limit{3, 0};
        ASSERT_EQ(setsockopt(channel->s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
        const int64_t begin = alarm_now_ms();
        EXPECT_EQ(ccm_read_channel(ccm, channel), 0);
        EXPECT_LT(alarm_now_ms() - begin, 1500);
    }
}

TEST_F(descriptor_test, what_the_listener_logs_is_bounded_marked_and_its_own) {
    ccm_msg_t* msg = ipc_record_alloc(ccm, ipc_logging, sizeof(ipcmsg_logging_t));
    msg->origin = CCM_FROM_LISTENER;
    auto record = ipc_record<ipcmsg_logging_t>("LOGGING");
    strcpy(record.msginsert, "JOB|17|");
    static std::string mark;
    mark.clear();
    const auto say = [&](int number) {
        record.msgnr = number;
        memcpy(msg->msg_start, &record, sizeof record);
        EXPECT_EQ(process_ipc_logging(&pcx, msg, 0), 0);
    };
    alarm_clock_advance(1000);
    say(2000008);  // a job's end
    EXPECT_EQ(logged(2000008), 0);
    EXPECT_EQ(log_text(-1), "a line with number 2000008, which is not the listener's: JOB|17|");
    for (const int own : {2003057, 2000064, 2002036, 1002203, 2000102}) {
        say(own);
        EXPECT_EQ(logged(own), 1) << own;
    }
    for (int at = 0; at < 20000; ++at) {
        say(2003064);
    }
    EXPECT_LT(logged(2003064), 1500);
    EXPECT_GT(logged(2003064), 1000) << "an honest listener is not cut";
    const int before = logged(-1);
    alarm_clock_advance(60);
    say(2003064);
    EXPECT_EQ(logged(-1), before + 1) << "how many were left out";
    const log_function former = __log_set_logger([](int, const char*) { mark = log_origin(); });
    say(2003064);
    EXPECT_EQ(mark, " [listener]");
    msg->origin = CCM_FROM_WORKER;
    say(2003064);
    EXPECT_EQ(mark, " [worker]");
    __log_set_logger(former);
    EXPECT_EQ(log_origin(), "");
    free(msg);
}

TEST_F(descriptor_test, a_record_that_waits_owns_its_descriptor) {
    int ends[2];
    tcp_pair(ends);
    ino_t passed = inode(ends[0]);
    ASSERT_EQ(send_file_descriptor(ccm, "*IPC(LISTENER)", ends[0], 3, 4, "NAME"), 0);
    close(ends[0]);
    alignas(cmsghdr) unsigned char control[64];
    unsigned char data[512];
    iovec piece{data, sizeof data};
    msghdr head{};
    head.msg_iov = &piece;
    head.msg_iovlen = 1;
    head.msg_control = control;
    head.msg_controllen = sizeof control;
    EXPECT_EQ(recvmsg(listener.fd, &head, 0), 48 + 156);
    cmsghdr* item = CMSG_FIRSTHDR(&head);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->cmsg_len, 20U);
    int got = -1;
    memcpy(&got, CMSG_DATA(item), sizeof got);
    EXPECT_EQ(inode(got), passed);
    close(got);
    close(ends[1]);
    // One that never finds its channel closes it.
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    int before = count_descriptors();
    ASSERT_EQ(send_file_descriptor(ccm, "*IPC(NOBODY)", 0, 3, 4, "NAME"), 0);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_EQ(count_descriptors(), before);
}

TEST_F(descriptor_test, the_agent_accepts_a_handshake_once_for_each_caller) {
    open_security();
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    partner writer(ends[0]);
    partner reader(ends[1]);
    shake_hands(&writer, "AGENT02");
    bytes token = reader.frame();
    ASSERT_FALSE(token.empty());
    auto record = ipc_record<ipcmsg_gsshs_remote_t>("GSSHS_REMOTE");
    record.listenerID = 12;
    record.len = static_cast<int>(token.size());
    listener.send(ipc_frame(record, token));
    EXPECT_EQ(handle_next(), 0);
    bytes answer = listener.frame();
    ASSERT_EQ(answer.size(), 48 + 28 + 48 + 100U);
    ipcmsg_gsshs_remote_t reply;
    memcpy(&reply, answer.data() + 48, sizeof reply);
    EXPECT_EQ(reply.listenerID, 12);
    EXPECT_EQ(reply.len, 148);
    ccm_channel_image_t image = image_of(reply.agentID);
    EXPECT_EQ(image.type, CH_TYPE_PLACEHOLDER);
    EXPECT_EQ(image.connect_timeout_secs, 10);
    // The same caller again would replace the keys under the connection.
    listener.send(ipc_frame(record, token));
    EXPECT_EQ(handle_next(), -1);
    EXPECT_EQ(next_record<ipcmsg_remote_close_t>().msgnr, 2003067);
    EXPECT_EQ(ccm_channel_existbyID(ccm, reply.agentID), 0);
    // Nor does the token count for another caller: somebody has kept it.
    record.listenerID = 13;
    listener.send(ipc_frame(record, token));
    EXPECT_EQ(handle_next(), -1);
    EXPECT_EQ(log_text(2000105), "gss_accept_sec_context|2|1002|");
    EXPECT_EQ(next_record<ipcmsg_remote_close_t>().msgnr, 2003067);
    // A start package of the key exchange never comes this way.
    bytes package(48 + 180);
    frame_set_header(package.data(), protocol_gss, 228);
    package[48] = 4;
    package[49] = 0x81;
    package[50] = 177;
    record.len = 228;
    listener.send(ipc_frame(record, package));
    EXPECT_EQ(handle_next(), -1);
    EXPECT_EQ(next_record<ipcmsg_remote_close_t>().msgnr, 2003067);
    token[100] ^= 1;
    record.len = static_cast<int>(token.size());
    listener.send(ipc_frame(record, token));
    EXPECT_EQ(handle_next(), -1);
    EXPECT_EQ(logged(2000105), 2);
    EXPECT_EQ(next_record<ipcmsg_remote_close_t>().msgnr, 2003067);
}

TEST_F(descriptor_test, routed_messages_go_to_the_server_only) {
    pcx.pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    int worker_id = 0;
    partner worker = open_channel(CH_TYPE_IPC, "*IPC(FTX,3)", &worker_id);
    auto record = ipc_record<ipcmsg_routenat_t>("ROUTENAT");
    bytes body = quitt_body("routed");
    record.len = static_cast<int>(body.size());
    strcpy(record.addr.dst_addr, "*SERVER");
    strcpy(record.addr.dst_name, "JPEXEC_R");
    record.addr.dst_ID = listener_id;  // means nothing in this process
    worker.send(ipc_frame(record, body));
    EXPECT_EQ(handle_next(), 0);
    strcpy(record.addr.dst_addr, "*IPC(LISTENER)");
    worker.send(ipc_frame(record, body));
    EXPECT_EQ(handle_next(), -1);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    pollfd nothing{listener.fd, POLLIN, 0};
    EXPECT_EQ(poll(&nothing, 1, 0), 0);
}

TEST_F(descriptor_test, the_listener_passes_token_and_socket_and_closes_when_both_are_out) {
    be(MODE_LISTENER);
    int agent_id = 0;
    int caller_id = 0;
    partner agent = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &agent_id);
    partner caller = open_channel(CH_TYPE_ACCEPTED, "AGENT02", &caller_id);
    bytes gss(48 + 151, 'x');
    frame_set_header(gss.data(), protocol_gss, 199, "Q1");
    caller.send(gss);
    ccm_msg_ptr msg = take_type(CCM_MSG_GSS);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(process_gss_protocol_message(&pcx, ccm, msg.get()), 0);
    EXPECT_EQ(log_text(2003064), "AGENT02/ID=" + std::to_string(caller_id));
    bytes forwarded = agent.frame();
    ASSERT_EQ(forwarded.size(), 48 + 28 + gss.size());
    ipcmsg_gsshs_remote_t record;
    memcpy(&record, forwarded.data() + 48, sizeof record);
    EXPECT_EQ(record.listenerID, caller_id);
    EXPECT_EQ(bytes(forwarded.begin() + 76, forwarded.end()), gss);
    // The answer for an unknown caller, and for a channel that is no caller's.
    bytes token(148, 'y');
    frame_set_header(token.data(), protocol_gss, 148);
    record.len = 148;
    record.agentID = 9;
    for (int wrong : {4711, agent_id}) {
        record.listenerID = wrong;
        agent.send(ipc_frame(record, token));
        EXPECT_EQ(handle_next(), -1);
    }
    record.listenerID = caller_id;
    agent.send(ipc_frame(record, token));
    EXPECT_EQ(handle_next(), 0);
    EXPECT_EQ(caller.frame(), token);
    bytes passed = agent.frame();
    ASSERT_EQ(passed.size(), 48 + 156U);
    auto quitt = ipc_record<ipcmsg_passfd_quitt_t>("PASSFD_QUITT");
    quitt.listenerID = caller_id;
    agent.send(ipc_frame(quitt));
    EXPECT_EQ(handle_next(), 0);
    EXPECT_EQ(close_event(caller_id).msgnr, 0);
}

TEST_F(descriptor_test, orders_of_the_agent_touch_callers_only) {
    be(MODE_LISTENER);
    int agent_id = 0;
    int caller_id = 0;
    partner agent = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &agent_id);
    partner caller = open_channel(CH_TYPE_ACCEPTED, "AGENT02", &caller_id);
    auto quitt = ipc_record<ipcmsg_natquitt_t>("NATQUITT");
    quitt.dstID = caller_id;
    quitt.len = 304;
    bytes body = quitt_body("to the messenger");
    agent.send(ipc_frame(quitt, body));
    EXPECT_EQ(handle_next(), 0);
    EXPECT_EQ(caller.frame(), frame_make_message(body.data(), body.size(), {}));
    auto order = ipc_record<ipcmsg_remote_close_t>("REMOTE_CLOSE");
    order.msgnr = 2003067;
    memset(order.msginsert, 'x', sizeof order.msginsert);  // no NUL
    order.ID = agent_id;
    agent.send(ipc_frame(order));
    EXPECT_EQ(handle_next(), 0);
    EXPECT_EQ(ccm_channel_existbyID(ccm, agent_id), 1);
    order.ID = caller_id;
    agent.send(ipc_frame(order));
    EXPECT_EQ(handle_next(), 0);
    EXPECT_TRUE(caller.ended());
    EXPECT_EQ(logged(2003067), 2);
}

TEST_F(descriptor_test, timers_fire_with_their_key) {
    ccm_msg_t* msg = ipc_record_alloc(ccm, ipc_timer_fire, sizeof(ipcmsg_timer_fire_t));
    auto record = ipc_record<ipcmsg_timer_fire_t>("TIMER_FIRE");
    strcpy(record.name, "NAME");
    strcpy(record.minor, "minor");
    std::string seen;
    record.cb_context = &seen;
    record.cb_function = [](void* context, const char* name, const char* minor) {
        *static_cast<std::string*>(context) = std::string(name) + "/" + minor;
        return 5;
    };
    memcpy(msg->msg_start, &record, sizeof record);
    ASSERT_EQ(send_IPC_internal(ccm, msg), 0);
    EXPECT_EQ(handle_next(), 5);
    EXPECT_EQ(seen, "NAME/minor");
}
