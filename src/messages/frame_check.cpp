// The frame check: header and items of a frame as far as it has arrived.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "messages/frame.h"
#include "messages/frame_items.h"
#include "messages/head.h"

namespace {

constexpr char work_area_eye_catcher[] = "%TcpMsg%";
constexpr int first_slots = 8;

bool is_work_area(const TCPMSG_WORK_AREA* handle) {
    return handle != nullptr && memcmp(handle->cID, work_area_eye_catcher, sizeof handle->cID) == 0;
}

// Where a check puts its inserts.
struct check_text {
    char* text;
    size_t size;
};

__attribute__((format(printf, 3, 4))) int refuse(const check_text& out, int number, const char* format, ...) {
    if (out.text != nullptr && out.size > 0) {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(out.text, out.size, format, arguments);
        va_end(arguments);
    }
    return number;
}

bool begins_like(const unsigned char* msg, size_t length, size_t offset, const char* text) {
    size_t there = length > offset ? std::min(length - offset, strlen(text)) : 0;
    return there == 0 || memcmp(msg + offset, text, there) == 0;
}

bool protocol_enabled(const unsigned char* msg, unsigned flags) {
    return ((flags & TCP_CHK_NAT) != 0 && frame_protocol_is(msg, protocol_native)) ||
           ((flags & TCP_CHK_GSS) != 0 && frame_protocol_is(msg, protocol_gss)) ||
           ((flags & TCP_CHK_IPC) != 0 && frame_protocol_is(msg, protocol_ipc)) ||
           ((flags & TCP_CHK_XML) != 0 && frame_protocol_is(msg, protocol_xml));
}

int check_length(const TCPMSG_WORK_AREA* handle, const unsigned char* msg, size_t length, unsigned flags,
                 const check_text& out) {
    constexpr size_t digits = sizeof(QX7_PROTOCOL_HEADER::cLength);
    int64_t number = 0;
    for (size_t i = 0; i < std::min(length, digits); ++i) {
        if (msg[i] < '0' || msg[i] > '9') {
            return refuse(out, number_frame_bad_header, "Length|");
        }
        number = number * 10 + msg[i] - '0';
    }
    if (length < digits) {
        return 0;
    }
    if (number <= static_cast<int64_t>(frame_header_size)) {
        return refuse(out, number_frame_bad_header, "Length|");
    }
    bool from_server = (handle->iUsedBy & tcp_used_by_agent) != 0 && (flags & TCP_CHK_SERVER) != 0;
    if (!from_server && (flags & TCP_CHK_NO_LIMIT) == 0 && handle->iMaxPhysMsgSize != 0 &&
        number > handle->iMaxPhysMsgSize) {
        return refuse(out, number_frame_too_long, "%d|", static_cast<int>(number));
    }
    return 0;
}

int check_header(const TCPMSG_WORK_AREA* handle, const unsigned char* msg, size_t length, unsigned flags,
                 const check_text& out) {
    int result = check_length(handle, msg, length, flags, out);
    if (result != 0) {
        return result;
    }
    if (!begins_like(msg, length, offsetof(QX7_PROTOCOL_HEADER, cEyeCatch), "QX7:global")) {
        return refuse(out, number_frame_bad_header, "EyeCatcher|");
    }
    if (!begins_like(msg, length, offsetof(QX7_PROTOCOL_HEADER, cVersion), "001")) {
        return refuse(out, number_frame_bad_header, "Version|");
    }
    if (length >= offsetof(QX7_PROTOCOL_HEADER, cCoding) && !protocol_enabled(msg, flags)) {
        return refuse(out, number_frame_bad_header, "Protocol|");
    }
    return 0;
}

// Name of a key that only a server may send on an agent's connection; null for the others.
const char* restricted_key(const TCPMSG_WORK_AREA* handle, unsigned char key, unsigned flags) {
    if ((handle->iUsedBy & tcp_used_by_agent) == 0) {
        return nullptr;
    }
    if (key == key_server_data) {
        return (flags & TCP_CHK_SERVER_DATA) != 0 ? nullptr : "ServerData";
    }
    if ((flags & TCP_CHK_SERVER) != 0) {
        return nullptr;
    }
    switch (key) {
        case key_define_addr:
            return "DefineAddr";
        case key_close_connection:
            return "CloseConnection";
        case key_cp_list:
            return "CpList";
        case key_system_shutdown:
            return "SysShutdown";
        default:
            return nullptr;
    }
}

int TcpScanCallback(const item_view& group, size_t offset, const check_text& out) {
    for (size_t at = 0; at < group.size;) {
        item_view item;
        unsigned char key = group.data[at];
        long place = static_cast<long>(offset + group.head + at);
        size_t left = group.size - at;
        if (left == 1) {
            return refuse(out, number_item_cut, "%ld|%.2x|", place, key);
        }
        if (key != key_name && key != key_acv && key != key_address) {
            return refuse(out, number_item_group_key, "%ld|%.2x|", place, key);
        }
        if (read_item(group.data + at, left, left, TcpKzLengthFieldLen(key), &item) != item_whole) {
            return refuse(out, number_item_cut, "%ld|%.2x|", place, key);
        }
        if (!item_size_allowed(key, item.size)) {
            return refuse(out, number_item_wrong_size, "%ld|%.2x|%u|", place, key,
                          static_cast<unsigned>(item.size));
        }
        at += item.head + item.size;
    }
    return 0;
}

// Checks an item that is there as a whole.
int check_item(const TCPMSG_WORK_AREA* handle, const item_view& item, size_t offset, unsigned flags,
               const check_text& out) {
    bool is_message = item.key == key_message_short || item.key == key_message;
    long place = static_cast<long>(offset);
    if (!item_size_allowed(item.key, item.size) || (is_message && item.size < message_type_size)) {
        return refuse(out, number_item_wrong_size, "%ld|%.2x|%u|", place, item.key,
                      static_cast<unsigned>(item.size));
    }
    const char* restricted = restricted_key(handle, item.key, flags);
    if (restricted != nullptr) {
        return refuse(out, number_item_not_allowed, "%ld|%.2x|%s|", place, item.key, restricted);
    }
    if (is_message && (flags & TCP_CHK_SERVER) == 0 && handle->iMsgCntUse > 0 &&
        !TCP_Allowed(handle, item.data)) {
        std::string_view type = get_text(reinterpret_cast<const char*>(item.data), message_type_size);
        return refuse(out, number_type_not_allowed, "%.*s|", static_cast<int>(type.size()), type.data());
    }
    if (item.key == key_source_group) {
        return TcpScanCallback(item, offset, out);
    }
    return 0;
}

uint32_t scramble_key(const unsigned char* data) {
    return static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8 |
           static_cast<uint32_t>(data[2]) << 16 | static_cast<uint32_t>(data[3]) << 24;
}

int check_body(const TCPMSG_WORK_AREA* handle, unsigned char* msg, size_t length, unsigned flags,
               const check_text& out) {
    size_t frame = static_cast<size_t>(GetProtocolLength(msg));
    size_t present = std::min(length, frame);
    for (size_t at = frame_header_size; at < present;) {
        item_view item;
        unsigned char key = msg[at];
        item_state state = read_item(msg + at, present - at, frame - at, TcpKzLengthFieldLen(key), &item);
        if (state == item_cut) {
            return refuse(out, number_item_cut, "%ld|%.2x|", static_cast<long>(at), key);
        }
        if (state == item_incomplete) {
            return 0;
        }
        int result = check_item(handle, item, at, flags, out);
        if (result != 0) {
            return result;
        }
        at += item.head + item.size;
        if (key == key_scramble && (flags & TCP_CHK_DESCRAMBLE) != 0 && present == frame) {
            TcpConvert(scramble_key(item.data), msg + at, frame - at);
        }
    }
    return 0;
}

}  // namespace

TCPMSG_WORK_AREA* TCP_Open(int usedBy) {
    TCPMSG_WORK_AREA* handle = new (std::nothrow) TCPMSG_WORK_AREA{};
    if (handle == nullptr) {
        return nullptr;
    }
    memcpy(handle->cID, work_area_eye_catcher, sizeof handle->cID);
    handle->iUsedBy = usedBy;
    return handle;
}

int TCP_Close(TCPMSG_WORK_AREA* handle) {
    if (!is_work_area(handle)) {
        return number_frame_bad_handle;
    }
    free(handle->pMsgArea);
    memset(handle->cID, 0, sizeof handle->cID);
    delete handle;
    return 0;
}

int TCP_Used(TCPMSG_WORK_AREA* handle, int usedBy) {
    if (!is_work_area(handle)) {
        return number_frame_bad_handle;
    }
    handle->iUsedBy = usedBy;
    return 0;
}

int TCP_Parms(TCPMSG_WORK_AREA* handle, const TCPMSG_PARMS* parms) {
    if (!is_work_area(handle)) {
        return number_frame_bad_handle;
    }
    handle->iMaxPhysMsgSize = parms->iMaxPhysMsgSize;
    handle->pToEbcdic = parms->pToEbcdic;
    handle->pToAscii = parms->pToAscii;
    handle->pToEbcdicCode = parms->pToEbcdicCode;
    handle->pEbcdicCodeTable = parms->pEbcdicCodeTable;
    handle->pToAsciiCode = parms->pToAsciiCode;
    handle->pAsciiCodeTable = parms->pAsciiCodeTable;
    return 0;
}

int TCP_Allow(TCPMSG_WORK_AREA* handle, const char* msgType, const MSGTAB* msgtab, char* retText,
              size_t retTextLength) {
    check_text out = {retText, retTextLength};
    if (!is_work_area(handle)) {
        return number_frame_bad_handle;
    }
    TCPMSG_MSG_TYPE type;
    put_text(type.name, msgType);
    if (msgtab != nullptr && find_definition(msgtab, {type.name, sizeof type.name}) == nullptr) {
        return refuse(out, number_type_unknown, "%s|", msgType);
    }
    if (handle->iMsgCntUse == handle->iMsgCnt) {
        int slots = handle->iMsgCnt == 0 ? first_slots : handle->iMsgCnt * 2;
        void* grown = realloc(handle->pMsgArea, static_cast<size_t>(slots) * sizeof(TCPMSG_MSG_TYPE));
        if (grown == nullptr) {
            return number_frame_no_memory;
        }
        handle->pMsgArea = static_cast<TCPMSG_MSG_TYPE*>(grown);
        handle->iMsgCnt = slots;
    }
    handle->pMsgArea[handle->iMsgCntUse++] = type;
    return 0;
}

bool TCP_Allowed(const TCPMSG_WORK_AREA* handle, const void* msgType) {
    if (!is_work_area(handle)) {
        return false;
    }
    for (int i = 0; i < handle->iMsgCntUse; ++i) {
        if (memcmp(handle->pMsgArea[i].name, msgType, sizeof handle->pMsgArea[i].name) == 0) {
            return true;
        }
    }
    return false;
}

TCPMSG_WORK_AREA* TcpMsg_Open(int usedBy) {
    static constexpr const char* types[] = {"FTXSEND", "FTXSENDQ", "FTXRECV", "FTXRECVQ", "FTXDATA",
                                            "FTXEND",  "FTXENDQ",  "FTXSTA",  "FTXQUIT",  "FTXREPG",
                                            "FTXINF",  "FT_RECV",  "FT_DATA", "FT_END",   "FT_STA",
                                            "FT_QUIT", "EXQUERY",  "EXINFO",  "MELD"};
    TCPMSG_WORK_AREA* handle = TCP_Open(usedBy);
    if (handle == nullptr) {
        return nullptr;
    }
    for (const char* type : types) {
        if (TCP_Allow(handle, type, get_msgtab(), nullptr, 0) != 0) {
            TCP_Close(handle);
            return nullptr;
        }
    }
    return handle;
}

void TcpMsg_Close(TCPMSG_WORK_AREA* handle) {
    TCP_Close(handle);  // a handle that is none needs no closing
}

int TCP_Chk(const TCPMSG_WORK_AREA* handle, unsigned char* msg, size_t length, unsigned flags, char* retText,
            size_t retTextLength) {
    check_text out = {retText, retTextLength};
    if (!is_work_area(handle)) {
        return number_frame_bad_handle;
    }
    if ((flags & TCP_CHK_HEADER) != 0) {
        int result = check_header(handle, msg, length, flags, out);
        if (result != 0) {
            return result;
        }
    }
    bool scan =
        (flags & TCP_CHK_BODY) != 0 && length > frame_header_size && frame_protocol_is(msg, protocol_native);
    return scan ? check_body(handle, msg, length, flags, out) : 0;
}

uint32_t TcpNewKey(uint32_t key) {
    uint32_t top = (key ^ (key >> 3)) & 1;
    return (key >> 1) | (top << 31);
}

void TcpConvert(uint32_t key, unsigned char* data, size_t length) {
    key = TcpNewKey(key);
    unsigned char pad[256];
    size_t pad_length = (key & 127) + 129;
    for (size_t i = 0; i < pad_length; ++i) {
        key = TcpNewKey(key);
        pad[i] = static_cast<unsigned char>(key % 255 + 1);
    }
    for (size_t i = 0; i < length; ++i) {
        data[i] ^= pad[i % pad_length];
    }
}
