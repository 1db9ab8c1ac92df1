// The walk over the two longest messages of a job, with variable data, and what reading them costs beside it.
#include "messages/conversion.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string_view>
#include <vector>

#include "messages/frame.h"
#include "messages/records_job.h"
#include "messages/view.h"

namespace {

using bytes = std::vector<unsigned char>;

template <class Record>
bytes to_bytes(const Record& record) {
    const unsigned char* start = reinterpret_cast<const unsigned char*>(&record);
    return {start, start + sizeof record};
}

void append(bytes* out, std::string_view text) {
    out->insert(out->end(), text.begin(), text.end());
}

// A state message with a restart record of 700 bytes, two variables and a file.
bytes make_exstaj() {
    std::string_view restart = "restart";
    std::string_view variables("first\0value one\0Csecond\0value two\0N", 36);
    std::string_view files("Y/var/tmp/output.txt\0", 21);
    auto message = new_message<MSG_TYPE_EXSTAJ>(100, 1, 4);
    message.restart_dist = sizeof message;
    message.restart_len = 700;
    message.statusv_dist = message.restart_dist + message.restart_len;
    message.statusv_entries = 2;
    message.outfile_dist = message.statusv_dist + static_cast<int32_t>(variables.size());
    message.outfile_count = 1;
    bytes out = to_bytes(message);
    append(&out, restart);
    out.resize(out.size() + 700 - restart.size());
    append(&out, variables);
    append(&out, files);
    return out;
}

// An activation with a script of 2000 bytes, three variables, a rest field and a password.
bytes make_exaktj() {
    std::string_view rest = "S=|/bin/sh|1=|option|";
    std::string_view values("one\0value\0N\0two\0value\0N\0three\0value\0N\0", 38);
    auto message = new_message<MSG_TYPE_EXAKTJ>(100, 1, 2);
    message.rest_dist = sizeof message;
    message.rest_len = static_cast<int32_t>(rest.size());
    message.jcl_dist = message.rest_dist + message.rest_len;
    message.jcl_len = 2000;
    message.valuetab_dist = message.jcl_dist + message.jcl_len;
    message.valuetab_entries = 3;
    message.pwd_dist = message.valuetab_dist + static_cast<int32_t>(values.size());
    message.pwd_len = 26;
    bytes out = to_bytes(message);
    append(&out, rest);
    out.resize(out.size() + 2000, '\n');
    append(&out, values);
    out.resize(out.size() + 26, '0');
    return out;
}

void convert(benchmark::State& state, bytes message, bool to_lan) {
    msgconv_ctx_t ctx;
    msg_error error;
    for (auto _ : state) {
        int result = to_lan ? ToLAN(message.data(), message.size(), &ctx, 0, nullptr, &error)
                            : ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error);
        if (result != walk_accepted) {
            state.SkipWithError(error.subst);
        }
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(message.size()));
}

void exstaj_to_lan(benchmark::State& state) {
    convert(state, make_exstaj(), true);
}

void exaktj_to_host(benchmark::State& state) {
    convert(state, make_exaktj(), false);
}

void exaktj_view(benchmark::State& state) {
    bytes message = make_exaktj();
    message_view view = view_message(message.data(), message.size());
    for (auto _ : state) {
        auto record = view_record<MSG_TYPE_EXAKTJ>(view);
        benchmark::DoNotOptimize(record);
    }
}

void frame_read(benchmark::State& state) {
    bytes message = make_exaktj();
    frame_address address;
    bytes frame = frame_make_message(message.data(), message.size(), address);
    for (auto _ : state) {
        frame_body body;
        qx7_error error;
        int result = frame_parse_body(frame.data() + frame_header_size, frame.size() - frame_header_size,
                                      &body, &error);
        benchmark::DoNotOptimize(result);
    }
}

// The peer: copying the same bytes once, which every message passes several times anyway.
void peer_copy_exaktj(benchmark::State& state) {
    bytes message = make_exaktj();
    bytes copy(message.size());
    for (auto _ : state) {
        memcpy(copy.data(), message.data(), message.size());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(exstaj_to_lan);
BENCHMARK(exaktj_to_host);
BENCHMARK(exaktj_view);
BENCHMARK(frame_read);
BENCHMARK(peer_copy_exaktj);

}  // namespace

BENCHMARK_MAIN();
