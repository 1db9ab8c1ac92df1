#include "transfer/legacy/restart_data.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t outer_head = 8;
constexpr size_t part_head = 56;
constexpr size_t name_max = 4096;
constexpr char name_end = '|';

#pragma pack(push, 1)
struct stp_head {
    int16_t msgLength;
    int16_t pnLength;
    int16_t fnLength;
    int16_t tnLength;
    int32_t msg_number;
    int32_t sta_cnt;
    int64_t file_size;
    int64_t transferred;
    int64_t records;
    int64_t seek;
    int64_t compressed;
};
#pragma pack(pop)
static_assert(sizeof(stp_head) == part_head);

// A name with its end, off the front of `names`. Only the folder may hold slashes.
bool take_name(std::string_view* names, int length, bool folder, std::string* out) {
    const size_t size = static_cast<size_t>(std::max(length, 0));
    if (length < 0 || size >= names->size() || (*names)[size] != name_end) {
        return false;
    }
    const std::string_view name = names->substr(0, size);
    if (name.find('\0') != std::string_view::npos) {
        return false;
    }
    if (!folder && (name.find('/') != std::string_view::npos || name == "." || name == "..")) {
        return false;
    }
    *out = name;
    names->remove_prefix(size + 1);
    return true;
}

int32_t read_length(const unsigned char* at) {
    int32_t length;
    memcpy(&length, at, sizeof length);
    return length;
}

}  // namespace

std::string make_stp_part(const DATA_FT_STP& data) {
    if (data.folder.size() > name_max || data.file_name.size() > name_max ||
        data.temp_name.size() > name_max) {
        return {};
    }
    std::string names;
    for (const std::string* name : {&data.folder, &data.file_name, &data.temp_name}) {
        names += *name;
        names += name_end;
    }
    stp_head head{};
    head.msgLength = static_cast<int16_t>(part_head + names.size());
    head.pnLength = static_cast<int16_t>(data.folder.size());
    head.fnLength = static_cast<int16_t>(data.file_name.size());
    head.tnLength = static_cast<int16_t>(data.temp_name.size());
    head.msg_number = data.msg_number;
    head.sta_cnt = data.sta_cnt;
    head.file_size = data.file_size;
    head.transferred = data.transferred;
    head.records = data.records;
    head.seek = data.seek;
    head.compressed = data.compressed;
    return std::string(reinterpret_cast<const char*>(&head), sizeof head) + names;
}

bool read_stp_part(std::string_view part, DATA_FT_STP* data) {
    stp_head head;
    if (part.size() < sizeof head) {
        return false;
    }
    memcpy(&head, part.data(), sizeof head);
    if (head.msgLength < 0 || static_cast<size_t>(head.msgLength) != part.size()) {
        return false;
    }
    *data = {};
    std::string_view names = part.substr(sizeof head);
    if (!take_name(&names, head.pnLength, true, &data->folder) ||
        !take_name(&names, head.fnLength, false, &data->file_name) ||
        !take_name(&names, head.tnLength, false, &data->temp_name) || !names.empty()) {
        return false;
    }
    data->msg_number = head.msg_number;
    data->sta_cnt = head.sta_cnt;
    data->file_size = head.file_size;
    data->transferred = head.transferred;
    data->records = head.records;
    data->seek = head.seek;
    data->compressed = head.compressed;
    return std::min({head.file_size, head.transferred, head.records, head.seek, head.compressed}) >= 0;
}

std::string make_restart_data(std::string_view own, std::string_view copied) {
    const int32_t lengths[] = {static_cast<int32_t>(own.size()), static_cast<int32_t>(copied.size())};
    std::string data(reinterpret_cast<const char*>(lengths), sizeof lengths);
    data += own;
    data += copied;
    return data;
}

bool read_restart_data(std::span<const unsigned char> data, restart_parts* parts) {
    *parts = {};
    if (data.size() < outer_head) {
        return false;
    }
    const int32_t own = read_length(data.data());
    const int32_t copied = read_length(data.data() + sizeof own);
    const size_t there = data.size() - outer_head;
    if (own < 0 || copied < 0 || static_cast<size_t>(own) > there ||
        static_cast<size_t>(copied) != there - static_cast<size_t>(own)) {
        return false;
    }
    const std::string_view text(reinterpret_cast<const char*>(data.data()) + outer_head, there);
    parts->own = text.substr(0, static_cast<size_t>(own));
    parts->copied = text.substr(static_cast<size_t>(own));
    return true;
}
