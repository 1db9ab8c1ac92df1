#include "message.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "base/version.h"
#include "messages/head.h"
#include "messages/timestamp.h"
#include "moment.h"

namespace {

constexpr char job_module[] = "JPAKTJ_R";

MSG_TYPE_TIMESTAMP stamp_of(const timespec& now) {
    return timestamp_of(utc_date(now.tv_sec), static_cast<int32_t>(now.tv_nsec));
}

template <class Record>
void fill_common(const request& order, char status, Record* record) {
    record->jobNr = order.run;
    record->status = status;
    put_text(record->md_version, qx_version);
    record->mdMajor = qx_major;
    record->mdMinor = qx_minor;
    record->mdPatch = qx_patch;
}

// Each puts its record at `at` and returns its length.
template <class Record>
size_t put_record(const Record& record, unsigned char* at) {
    memcpy(at, &record, sizeof record);
    return sizeof record;
}

size_t put_status(const request& order, const timespec& now, unsigned char* at) {
    JP_EXMLDJ record{};
    fill_common(order, order.command == command_end ? meld_ended : meld_running, &record);
    put_text(record.infoText, meld_mark_size, order.command == command_restart ? order.mark : "");
    put_text(record.infoText + meld_mark_size, sizeof record.infoText - meld_mark_size, order.text);
    record.retCode = order.retcode;
    record.sTime = stamp_of(now);
    record.jtime = now.tv_sec;
    record.pid = getpid();
    record.ppid = getppid();
    record.pgrp = getpgrp();
    record.pgid = getpgid(0);
    record.sid = getsid(0);
    record.uid = getuid();
    record.euid = geteuid();
    record.gid = getgid();
    record.egid = getegid();
    return put_record(record, at);
}

size_t put_variable(const request& order, const timespec& now, unsigned char* at) {
    JP_EXMLDV record{};
    fill_common(order, meld_variable, &record);
    put_text(record.infoText, "");
    record.currTime = stamp_of(now);
    record.currTime_t = now.tv_sec;
    record.variable_dist = sizeof record;
    record.variable_len = sizeof(MSG_TYPE_STATUS_VALUE);
    MSG_TYPE_STATUS_VALUE value{};
    copy_text(value.name, order.operands[0]);
    copy_text(value.value, order.operands[1]);
    value.type = order.type;
    const size_t length = put_record(record, at);
    return length + put_record(value, at + length);
}

size_t put_file(const request& order, const timespec& now, unsigned char* at) {
    JP_EXMLDO record{};
    fill_common(order, meld_file, &record);
    record.currTime = stamp_of(now);
    record.currTime_t = now.tv_sec;
    record.loginCheck = order.login_check;
    copy_text(record.fileName, order.operands[0]);
    return put_record(record, at);
}

size_t put_command(const request& order, const timespec& now, unsigned char* at) {
    switch (order.command) {
        case command_variable:
            return put_variable(order, now, at);
        case command_file:
            return put_file(order, now, at);
        default:
            return put_status(order, now, at);
    }
}

}  // namespace

void make_frame(const request& order, const timespec& now, message_frame* out) {
    unsigned char* message = out->buffer + frame_headroom;
    memset(message, 0, largest_message);
    MSG_TYPE_MELD head{};
    CreateQxHeadm(&head.header, "MELD", order.client, 0);
    set_message_version(&head.header, 3);
    memcpy(message, &head, meld_record_offset);
    const size_t record = put_command(order, now, message + meld_record_offset);
    frame_address address;
    copy_text(address.dst_name, job_module);
    unsigned char* body = nullptr;
    unsigned char* frame = nullptr;
    const size_t length = std::max(sizeof head, meld_record_offset + record);
    const size_t wrapped = frame_wrap_message(message, length, address, &body);
    out->length = static_cast<size_t>(frame_wrap_body(body, wrapped, protocol_native, &frame));
    out->bytes = frame;
}
