#include "fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/time.h"
#include "log/log.h"
#include "loopback.h"
#include "messages/conversion.h"
#include "messages/head.h"
#include "messages/records_server.h"
#include "security/key_store.h"

namespace {

const uint8_t transfer_key[gss_key_size] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};

}  // namespace

bytes text_bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

bytes quitt_body(std::string_view insert) {
    auto record = new_message<MSG_TYPE_QUITT>(1, 2);
    put_text(record.quitt, "OK");
    put_text(record.filler, "");
    put_text(record.msg, "EXINFO");
    put_text(record.msg_insert, insert);
    bytes body(sizeof record);
    memcpy(body.data(), &record, sizeof record);
    return body;
}

partner::partner(int socket) : fd(socket) {
    timeval limit{wait_seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

partner::partner(partner&& other) noexcept : fd(other.fd), context(other.context) {
    other.fd = -1;
    other.context = nullptr;
}

partner::~partner() {
    close();
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &context, nullptr);
}

void partner::close() {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

void partner::send(const bytes& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t sent = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;  // the other side has ended the connection; the test looks at that
        }
        done += static_cast<size_t>(sent);
    }
}

namespace {

bool read_whole(int fd, unsigned char* to, size_t length) {
    size_t done = 0;
    while (done < length) {
        ssize_t got = recv(fd, to + done, length - done, 0);
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

bytes partner::frame() {
    bytes data(frame_header_size);
    if (!read_whole(fd, data.data(), data.size())) {
        return {};
    }
    int64_t length = GetProtocolLength(data.data());
    data.resize(static_cast<size_t>(length));
    if (!read_whole(fd, data.data() + frame_header_size, data.size() - frame_header_size)) {
        return {};
    }
    return data;
}

bool partner::ended() {
    unsigned char buffer[65536];
    for (;;) {
        ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) {
            return got == 0 || errno == ECONNRESET;
        }
    }
}

bytes partner::sealed(const bytes& plain) {
    size_t length = plain.size() - frame_header_size;
    bytes frame(frame_header_size + CalcMsgSize(length));
    OM_uint32 minor = 0;
    size_t written = 0;
    EXPECT_EQ(gss_wrap_ex(&minor, context, 1, 3, {plain.data() + frame_header_size, length},
                          {frame.data() + frame_header_size, frame.size() - frame_header_size}, &written),
              0U);
    frame.resize(frame_header_size + written);
    frame_set_header(frame.data(), protocol_native, static_cast<int64_t>(frame.size()));
    return frame;
}

bytes partner::unsealed(const bytes& frame) {
    bytes plain(frame.size());
    OM_uint32 minor = 0;
    size_t written = 0;
    gss_qop_t qop = 0;
    EXPECT_EQ(gss_unwrap_ex(&minor, context, 3,
                            {frame.data() + frame_header_size, frame.size() - frame_header_size}, plain,
                            &written, &qop),
              0U)
        << minor;
    plain.resize(written);
    return plain;
}

void tcp_pair(int ends[2]) {
    int port = 0;
    const int listener = listen_on_loopback(&port);
    ends[0] = connect_to_loopback(port);
    ASSERT_GE(ends[0], 0);
    ends[1] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(ends[1], 0);
    close(listener);
}

ccm_test::ccm_test() {
    GlbPcx = &pcx;
    forget_lines();
    __log_set_logger(collect_line);
    strcpy(pcx.exName, own_name);
    strcpy(pcx.sysName, own_system);
    pcx.connwait = 10;
    pcx.pcx_iGssQop = 3;
    static msgconv_ctx_t conversion;
    static bool opened = false;
    if (!opened) {
        opened = true;
        msgconv_open(&conversion, nullptr, nullptr, nullptr, collect_line, nullptr, 0);
    }
    pcx.pcx_msgctx = &conversion;
    TCPMSG_WORK_AREA* frames = TcpMsg_Open(tcp_used_by_agent);
    TCPMSG_PARMS parms{};
    parms.iSizeOfParms = tcp_parms_size;
    parms.iMaxPhysMsgSize = 500000;
    TCP_Parms(frames, &parms);
    pcx.pcx_hTcpMsg = frames;
    ccm_error_t error;
    EXPECT_EQ(ccm_open(&pcx, &ccm, &error), 0);
    pcx.ccm = ccm;
}

ccm_test::~ccm_test() {
    ccm_thread_end(ccm);
    ccm_channel_closeall(ccm);
    ccm_close(ccm, nullptr);
    TcpMsg_Close(pcx.pcx_hTcpMsg);
    OM_uint32 minor = 0;
    gss_release_name(&minor, &pcx.pcx_sName);
    __log_set_logger(nullptr);
    GlbPcx = nullptr;
}

void ccm_test::start() {
    ccm_error_t error;
    ASSERT_EQ(ccm_thread_start(ccm, &error), 0) << error.qx_msgInsert;
}

void ccm_test::be(int mode) {
    bool running = ccm->thread_started.load() != 0;
    ccm_thread_end(ccm);
    pcx.running_mode = mode;
    if (running) {
        start();
    }
}

partner ccm_test::open_channel(int type, const char* name, int* id) {
    int ends[2] = {-1, -1};
    if (type == CH_TYPE_IPC) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    } else {
        tcp_pair(ends);
    }
    ccm_channel_t* channel = nullptr;
    ccm_error_t error;
    EXPECT_EQ(ccm_channel_new_entry(ccm, &channel, &error), 0);
    channel->s = ends[0];
    channel->type = type;
    strcpy(channel->name, name);
    strcpy(channel->addr, "127.0.0.1");
    EXPECT_EQ(ccm_set_nonblocking(ccm, channel, &error), 0);
    *id = channel->ID;
    ccm_channel_chain(ccm, channel);
    return partner(ends[1]);
}

ccm_msg_ptr ccm_test::take(int seconds) {
    const int64_t end = alarm_now_ms() + seconds * 1000;
    do {
        ccm_msg_t* msg = nullptr;
        ccm_error_t error;
        if (ccm_receive_message(ccm, seconds, &msg, &error) != 0) {
            return ccm_msg_ptr(msg, {ccm});
        }
    } while (alarm_now_ms() < end);
    return ccm_msg_ptr(nullptr, {ccm});
}

ccm_msg_ptr ccm_test::take_type(int type) {
    ccm_msg_ptr msg = take();
    while (msg != nullptr && msg->type != type) {
        msg.reset();  // its channel may wait for that
        msg = take();
    }
    return msg;
}

ccm_msg_ptr ccm_test::take_record(const char* name) {
    ccm_msg_ptr msg = take_type(CCM_MSG_IPC);
    while (msg != nullptr && memcmp(msg->msg_start, name, 16) != 0) {
        msg.reset();
        msg = take_type(CCM_MSG_IPC);
    }
    return msg;
}

ccm_channel_image_t ccm_test::image_of(int id) const {
    ccm_channel_image_t image{};
    EXPECT_EQ(ccm_channel_copy(ccm, id, &image), 0);
    return image;
}

ccm_channel_image_t ccm_test::close_event(int id) {
    ccm_channel_image_t image{};
    while (const ccm_msg_ptr msg = take_record(ipc_channel_close)) {
        memcpy(&image, msg->msg_start + sizeof(ipcmsg_header_t), sizeof image);
        if (image.ID == id) {
            return image;
        }
    }
    image = {};
    ADD_FAILURE() << "no CHANNEL_CLOSE for " << id;
    return image;
}

ccm_msg_t* ccm_test::nat_message(const bytes& body) {
    ccm_error_t error;
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, static_cast<int>(body.size()), &error);
    std::copy(body.begin(), body.end(), msg->msg_start);
    return msg;
}

bool ccm_test::eventually(const std::function<bool()>& done) {
    int64_t end = alarm_now_ms() + wait_seconds * 1000;
    while (!done()) {
        if (alarm_now_ms() > end) {
            return false;
        }
        poll(nullptr, 0, 1);
    }
    return true;
}

void ccm_test::open_security() {
    key_folder.emplace();
    ASSERT_EQ(KComInit(&agent_keys(), own_system, own_name, {}, *key_folder / "KStore.ini"), 0);
    ASSERT_EQ(set_transfer_key(&agent_keys(), own_name, transfer_key), 0);
    KMsetGSSCallback();
    OM_uint32 minor = 0;
    gss_buffer_desc text{strlen(own_name), const_cast<char*>(own_name)};
    ASSERT_EQ(gss_import_name(&minor, &text, GSS_C_NT_MACHINE_UID_NAME, &pcx.pcx_sName), 0U);
}

void ccm_test::shake_hands(partner* far, const char* name) {
    OM_uint32 minor = 0;
    gss_cred_id_t cred = nullptr;
    ASSERT_EQ(gss_acquire_cred_with_key(&minor, name, transfer_key, GSS_C_INITIATE, &cred), 0U);
    gss_name_t target = nullptr;
    gss_buffer_desc text{strlen(name), const_cast<char*>(name)};
    ASSERT_EQ(gss_import_name(&minor, &text, GSS_C_NT_MACHINE_UID_NAME, &target), 0U);
    gss_buffer_desc token;
    OM_uint32 major =
        gss_init_sec_context(&minor, cred, &far->context, target, GSS_MECH_KLVT_QX7, 0, GSS_C_INDEFINITE,
                             nullptr, nullptr, nullptr, &token, nullptr, nullptr);
    ASSERT_LE(major, 1U) << minor;
    bytes frame(frame_header_size + token.length);
    frame_set_header(frame.data(), protocol_gss, static_cast<int64_t>(frame.size()), "Q1");
    memcpy(frame.data() + frame_header_size, token.value, token.length);
    far->send(frame);
    gss_release_buffer(&minor, &token);
    gss_release_cred(&minor, &cred);
    gss_release_name(&minor, &target);
}
