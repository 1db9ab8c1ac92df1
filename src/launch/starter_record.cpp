#include "launch/starter_record.h"

#include <cstring>
#include <string_view>

namespace {

void append(std::vector<unsigned char>* record, const void* data, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    record->insert(record->end(), bytes, bytes + size);
}

// Texts end in a zero byte, so one inside would cut it.
void append_text(std::vector<unsigned char>* record, std::string_view text) {
    append(record, text.data(), text.size());
    record->push_back(0);
}

uint32_t flags_of(const starter_wish& wish) {
    uint32_t flags = 0;
    flags |= wish.output >= 0 ? STARTER_OUTPUT : 0U;
    flags |= wish.input >= 0 ? STARTER_INPUT : 0U;
    flags |= wish.identity ? STARTER_IDENTITY : 0U;
    flags |= wish.descriptor_limit.rlim_max != 0 ? STARTER_LIMIT : 0U;
    return flags;
}

starter_order head_of(const starter_wish& wish) {
    starter_order head = {};
    memcpy(head.mark, starter_order_mark, sizeof head.mark);
    head.flags = flags_of(wish);
    head.uid = wish.uid;
    head.gid = wish.gid;
    head.group_count = static_cast<uint32_t>(wish.groups.size());
    head.argument_count = static_cast<uint32_t>(wish.arguments.size());
    head.environment_count = static_cast<uint32_t>(wish.environment.size());
    head.limit_soft = wish.descriptor_limit.rlim_cur;
    head.limit_hard = wish.descriptor_limit.rlim_max;
    memcpy(head.exit_codes, wish.exit_codes.data(), sizeof head.exit_codes);
    return head;
}

bool within_limits(const starter_wish& wish) {
    return wish.program != nullptr && wish.directory != nullptr &&
           wish.arguments.size() <= starter_argument_limit &&
           wish.environment.size() <= starter_environment_limit && wish.groups.size() <= starter_group_limit;
}

bool head_is_good(const starter_order& head, size_t size, int descriptors) {
    if (memcmp(head.mark, starter_order_mark, sizeof head.mark) != 0 || head.size != size ||
        (head.flags & ~static_cast<uint32_t>(STARTER_FLAGS)) != 0 || head.group_count > starter_group_limit ||
        head.argument_count < 1 || head.argument_count > starter_argument_limit ||
        head.environment_count > starter_environment_limit) {
        return false;
    }
    const int wanted =
        ((head.flags & STARTER_OUTPUT) != 0 ? 1 : 0) + ((head.flags & STARTER_INPUT) != 0 ? 1 : 0);
    for (const uint8_t code : head.exit_codes) {
        if (code == 0) {
            return false;
        }
    }
    return descriptors == wanted &&
           sizeof head + size_t{head.group_count} * sizeof(gid_t) + head.text_size == size;
}

// The texts of a record, one after the other; null when there is none left.
struct text_reader {
    char* at;
    char* end;

    char* next() {
        char* zero = at == end ? nullptr : static_cast<char*>(memchr(at, 0, static_cast<size_t>(end - at)));
        if (zero == nullptr) {
            return nullptr;
        }
        char* text = at;
        at = zero + 1;
        return text;
    }
    bool next(starter_text* text) {
        text->at = next();
        if (text->at == nullptr) {
            return false;
        }
        text->length = static_cast<size_t>(at - 1 - text->at);
        return true;
    }
    bool next(uint32_t count, char** list) {
        for (uint32_t i = 0; i < count; ++i) {
            list[i] = next();
            if (list[i] == nullptr) {
                return false;
            }
        }
        list[count] = nullptr;
        return true;
    }
};

}  // namespace

std::vector<unsigned char> starter_build_order(const starter_wish& wish) {
    std::vector<unsigned char> record;
    if (!within_limits(wish)) {
        return record;
    }
    starter_order head = head_of(wish);
    record.reserve(4096);
    append(&record, &head, sizeof head);
    append(&record, wish.groups.data(), wish.groups.size_bytes());
    const size_t texts = record.size();
    append_text(&record, wish.program);
    append_text(&record, wish.directory);
    for (const char* argument : wish.arguments) {
        append_text(&record, argument);
    }
    for (const char* entry : wish.environment) {
        append_text(&record, entry);
    }
    for (const std::string_view line : wish.failures) {
        append_text(&record, line);
    }
    append_text(&record, wish.lines);
    if (record.size() > starter_order_limit) {
        return {};
    }
    head.size = static_cast<uint32_t>(record.size());
    head.text_size = static_cast<uint32_t>(record.size() - texts);
    memcpy(record.data(), &head, sizeof head);
    return record;
}

int starter_read_order(std::span<unsigned char> record, int descriptors, starter_job* job) {
    static_assert(sizeof(starter_order) % alignof(gid_t) == 0);
    if (record.size() < sizeof(starter_order) || record.size() > starter_order_limit) {
        return -1;
    }
    memcpy(&job->head, record.data(), sizeof job->head);
    if (!head_is_good(job->head, record.size(), descriptors)) {
        return -1;
    }
    unsigned char* behind = record.data() + sizeof(starter_order);
    job->groups = reinterpret_cast<const gid_t*>(behind);
    char* texts = reinterpret_cast<char*>(behind + size_t{job->head.group_count} * sizeof(gid_t));
    text_reader reader{texts, texts + job->head.text_size};
    job->program = reader.next();
    job->directory = reader.next();
    bool good = job->directory != nullptr && job->program[0] == '/' &&
                reader.next(job->head.argument_count, job->arguments) &&
                reader.next(job->head.environment_count, job->environment);
    for (starter_text& line : job->failures) {
        good = good && reader.next(&line);
    }
    good = good && reader.next(&job->lines);
    return good && reader.at == reader.end ? 0 : -1;
}
