// Messages through a channel beside the same bytes through two bare sockets: time for a round trip, and what
// a stream of messages carries, plain and sealed.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <vector>

#include "channels/connect.h"
#include "channels/messages.h"
#include "channels/network_thread.h"
#include "log/log.h"
#include "messages/conversion.h"
#include "messages/frame.h"

namespace {

using bytes = std::vector<unsigned char>;

gss_ctx_id_t new_context(OM_uint32 id, OM_uint32 partner) {
    auto* context = new gss_ctx_id_struct;
    context->m_CtxID = id;
    context->m_PartnerCtxID = partner;
    context->m_CtxState = GSS_CTX_ACCEPTED;
    aes_set_key(&context->full_key, context->m_SessionKey.span());
    return context;
}

struct connection {
    EX_PCX pcx;
    ccm_context_t* ccm = nullptr;
    int far = -1;
    int id = 0;

    explicit connection(bool sealed) {
        GlbPcx = &pcx;
        __log_set_logger(log_dummy);
        pcx.pcx_iGssQop = 3;
        static msgconv_ctx_t conversion;
        msgconv_open(&conversion, nullptr, nullptr, nullptr, log_dummy, nullptr, 0);
        pcx.pcx_msgctx = &conversion;
        pcx.pcx_hTcpMsg = TcpMsg_Open(tcp_used_by_agent);
        ccm_open(&pcx, &ccm, nullptr);
        pcx.ccm = ccm;
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            abort();
        }
        far = ends[1];
        ccm_channel_t* channel = nullptr;
        ccm_channel_new_entry(ccm, &channel, nullptr);
        channel->s = ends[0];
        channel->type = sealed ? CH_TYPE_SERVER : CH_TYPE_IPC;
        strcpy(channel->name, sealed ? "*SERVER" : "*IPC(AGENT)");
        if (sealed) {
            channel->pATctx = new_context(1, 1);
            channel->flag.fetch_or(CH_FLAG_SEALED);
        }
        ccm_set_nonblocking(ccm, channel, nullptr);
        id = channel->ID;
        ccm_channel_chain(ccm, channel);
        ccm_thread_start(ccm, nullptr);
    }

    ~connection() {
        close(far);
        ccm_thread_end(ccm);
        ccm_channel_closeall(ccm);
        ccm_close(ccm, nullptr);
        TcpMsg_Close(static_cast<TCPMSG_WORK_AREA*>(pcx.pcx_hTcpMsg));
        GlbPcx = nullptr;
    }

    ccm_msg_t* receive() {
        for (;;) {
            ccm_msg_t* msg = nullptr;
            if (ccm_receive_message(ccm, 5, &msg, nullptr) != 0) {
                return msg;
            }
        }
    }

    void send(const unsigned char* data, int length) {
        ccm_msg_t* msg = ccm_msg_alloc_huge(ccm, std::max(length, ccm_msg_standard_size), nullptr);
        memcpy(msg->msg_start, data, static_cast<size_t>(length));
        msg->len = length;
        msg->flag |= CCM_MSG_FLAG_RAW;
        ccm_setaddr(msg, id, 0, "", "", 0);
        send_NAT_message(ccm, msg);
    }
};

void write_whole(int fd, const bytes& data) {
    for (size_t done = 0; done < data.size();) {
        ssize_t sent = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;
        }
        done += static_cast<size_t>(sent);
    }
}

bool read_whole(int fd, unsigned char* data, size_t length) {
    for (size_t done = 0; done < length;) {
        ssize_t got = recv(fd, data + done, length - done, 0);
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

bytes xml_frame(size_t size) {
    bytes body(size, 'x');
    memcpy(body.data(), "<?xml", 5);
    return frame_make_message(body.data(), body.size(), {});
}

// A message in, its handler's answer out: the way of EXAKTJ and EXAKTJQU less the job itself.
void channel_round_trip(benchmark::State& state) {
    connection link(false);
    std::thread agent([&] {
        for (;;) {
            ccm_msg_t* msg = link.receive();
            bool last = msg->type == CCM_MSG_IPC;
            if (!last) {
                link.send(msg->msg_start, msg->len);
            }
            ccm_msg_free(link.ccm, msg);
            if (last) {
                return;
            }
        }
    });
    bytes frame = xml_frame(2000);
    bytes answer(frame.size());
    for (auto _ : state) {
        write_whole(link.far, frame);
        read_whole(link.far, answer.data(), answer.size());
    }
    shutdown(link.far, SHUT_RDWR);
    agent.join();
}
BENCHMARK(channel_round_trip)->UseRealTime();

// The peer: two bare sockets and a thread that sends back.
void peer_round_trip(benchmark::State& state) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        abort();
    }
    bytes frame = xml_frame(2000);
    std::thread echo([&] {
        bytes data(frame.size());
        while (read_whole(ends[0], data.data(), data.size())) {
            write_whole(ends[0], data);
        }
    });
    bytes answer(frame.size());
    for (auto _ : state) {
        write_whole(ends[1], frame);
        read_whole(ends[1], answer.data(), answer.size());
    }
    shutdown(ends[1], SHUT_RDWR);
    echo.join();
    close(ends[0]);
    close(ends[1]);
}
BENCHMARK(peer_round_trip)->UseRealTime();

// Blocks of a report on their way to the server.
void channel_stream(benchmark::State& state) {
    auto size = static_cast<size_t>(state.range(0));
    connection link(state.range(1) != 0);
    std::thread reader([&] {
        bytes data(1 << 20);
        while (recv(link.far, data.data(), data.size(), 0) > 0) {
        }
    });
    bytes body(size, 'x');
    memcpy(body.data(), "<?xml", 5);
    for (auto _ : state) {
        link.send(body.data(), static_cast<int>(body.size()));
        while (ccm_channel_get_sendq_count(link.ccm, state.range(1) != 0 ? "*SERVER" : "*IPC(AGENT)") > 16) {
            std::this_thread::yield();
        }
    }
    while (ccm_is_all_sendq_empty(link.ccm) == 0) {
        std::this_thread::yield();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
    shutdown(link.far, SHUT_RDWR);
    reader.join();
}
BENCHMARK(channel_stream)
    ->ArgNames({"size", "sealed"})
    ->Args({32000, 0})
    ->Args({32000, 1})
    ->Args({4000000, 0})
    ->UseRealTime();

void peer_stream(benchmark::State& state) {
    auto size = static_cast<size_t>(state.range(0));
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        abort();
    }
    std::thread reader([&] {
        bytes data(1 << 20);
        while (recv(ends[0], data.data(), data.size(), 0) > 0) {
        }
    });
    bytes frame = xml_frame(size);
    for (auto _ : state) {
        write_whole(ends[1], frame);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
    shutdown(ends[1], SHUT_RDWR);
    reader.join();
    close(ends[0]);
    close(ends[1]);
}
BENCHMARK(peer_stream)->ArgNames({"size"})->Args({32000})->Args({4000000})->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
