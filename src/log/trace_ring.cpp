// The ring: eight blocks of memory, of which the oldest is dropped as a whole.
#include <algorithm>
#include <cstring>

#include "base/memory.h"
#include "base/text.h"
#include "log/trace.h"
#include "log/trace_lines.h"

namespace {

constexpr size_t entry_alignment = 32;
constexpr size_t smallest_block = 65536;
constexpr size_t dump_reserve = 1024;
constexpr size_t truncation_note = 64;
constexpr int largest_ring = 1024;  // megabytes

size_t rounded_up(size_t size) {
    return (size + entry_alignment - 1) / entry_alignment * entry_alignment;
}

void free_blocks(PZUTRACE handle) {
    for (__ring_trace_block& block : handle->rtbs) {
        aligned_free(block.buffer);
        block = {};
    }
    handle->rtf = nullptr;
    handle->rtl = nullptr;
    handle->rt_size = 0;
    handle->rt_num = 0;
    handle->rtb_current = 0;
}

int report_no_memory(PZUTRACE handle, size_t wanted) {
    printf("Unable to allocate memory for ringtrace block\nRequested %zu bytes\nCheck you REGION parameter\n",
           wanted);
    fflush(stdout);
    free_blocks(handle);
    handle->flag.fetch_and(~TRACE_RING);
    return -1;
}

_ring_trace* first_entry(const __ring_trace_block& block) {
    return reinterpret_cast<_ring_trace*>(block.buffer);
}

// Moves to the next block and drops what it holds.
void take_next_block(PZUTRACE handle) {
    handle->rtb_current = (handle->rtb_current + 1) % ring_block_count;
    __ring_trace_block& block = handle->rtbs[handle->rtb_current];
    if (handle->rtf == first_entry(block)) {
        handle->rtf = first_entry(handle->rtbs[(handle->rtb_current + 1) % ring_block_count]);
    }
    handle->rt_size -= block.rt_size;
    handle->rt_num -= block.rt_num;
    block.rt_size = 0;
    block.rt_num = 0;
}

_ring_trace* place_entry(PZUTRACE handle, size_t size) {
    if (handle->rtbs[handle->rtb_current].rt_size + size > handle->rtbs[handle->rtb_current].rt_maxsize) {
        take_next_block(handle);
    }
    __ring_trace_block& block = handle->rtbs[handle->rtb_current];
    _ring_trace* entry = reinterpret_cast<_ring_trace*>(block.buffer + block.rt_size);
    memset(static_cast<void*>(entry), 0, ring_entry_head);
    memcpy(entry->eyec, "%RTRACE%", sizeof entry->eyec);
    entry->size = static_cast<uint32_t>(size);
    if (handle->rtf == nullptr) {
        handle->rtf = entry;
    }
    if (handle->rtl != nullptr) {
        handle->rtl->nxt = entry;
    }
    handle->rtl = entry;
    handle->rt_size += size;
    handle->rt_num += 1;
    block.rt_size += static_cast<uint32_t>(size);
    block.rt_num += 1;
    return entry;
}

void fill_content(_ring_trace* entry, std::string_view text, const void* address, size_t dump_length,
                  bool cut) {
    entry->addr = address;
    entry->dump_len = static_cast<uint32_t>(dump_length);
    entry->dump = reinterpret_cast<unsigned char*>(entry) + ring_entry_head;
    entry->text = reinterpret_cast<char*>(entry->dump + dump_length);
    if (dump_length != 0) {
        memcpy(entry->dump, address, dump_length);
    }
    memcpy(entry->text, text.data(), text.size());
    entry->text[text.size()] = '\0';
    if (cut) {
        char note[truncation_note + 1];
        snprintf(note, sizeof note, "*** DUMP AREA TRUNCATED TO %zu bytes ***", dump_length);
        put_text(reinterpret_cast<char*>(entry->dump) + dump_length - truncation_note, truncation_note, note);
    }
}

std::string entry_lines(const _ring_trace& entry) {
    trace_line_head head{};
    head.main_thread = entry.main_thread != 0;
    head.thread = entry.thread;
    copy_text(head.time, entry.time);
    if (entry.type == TRACE_ENTRY_DUMP) {
        return trace_dump_lines(head, entry.text, entry.addr, entry.dump, entry.dump_len);
    }
    return trace_text_line(head, entry.text);
}

}  // namespace

int trc_set_rt_size(PZUTRACE handle, int size) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return -1;
    }
    free_blocks(handle);
    if (size <= 0) {
        handle->rt_maxsize = 0;
        handle->flag.fetch_and(~TRACE_RING);
        return 0;
    }
    handle->rt_maxsize = static_cast<uint64_t>(std::min(size, largest_ring)) << 20;
    // A seventh: while one block is being refilled the other seven hold the wanted amount.
    const size_t block_size =
        std::max(static_cast<size_t>(handle->rt_maxsize / (ring_block_count - 1)), smallest_block) /
        entry_alignment * entry_alignment;
    for (__ring_trace_block& block : handle->rtbs) {
        memcpy(block.eyec, "%RTB", sizeof block.eyec);
        block.rt_maxsize = static_cast<uint32_t>(block_size);
        block.buffer = static_cast<unsigned char*>(aligned_malloc(block_size, entry_alignment));
        if (block.buffer == nullptr) {
            return report_no_memory(handle, block_size);
        }
    }
    handle->flag.fetch_or(TRACE_RING);
    return 0;
}

int trc_rt_add(PZUTRACE handle, trace_entry_type type, const char* text, size_t text_length,
               const void* address, size_t dump_length) {
    trace_guard guard;
    if (!is_trace(handle) || (handle->flag & TRACE_RING) == 0) {
        return -1;
    }
    const size_t block_size = handle->rtbs[0].rt_maxsize;
    const bool cut = dump_length >= block_size - dump_reserve;
    if (cut) {
        dump_length = block_size / 2;
    }
    text_length = std::min(text_length, dump_reserve * 2);
    const size_t needed = rounded_up(text_length + dump_length + ring_entry_head + 1);
    // The longest text beside the longest uncut dump: the text gives way.
    const size_t size = std::min(needed, block_size);
    text_length = std::min(text_length, size - dump_length - ring_entry_head - 1);
    _ring_trace* entry = place_entry(handle, size);
    fill_content(entry, {text, text_length}, address, dump_length, cut);
    const trace_line_head head = current_trace_head();
    entry->type = type;
    entry->thread = head.thread;
    entry->main_thread = head.main_thread ? 1 : 0;
    copy_text(entry->time, head.time);
    handle->rt_lid += 1;
    snprintf(handle->rt_lid_char, sizeof handle->rt_lid_char, "LASTID-%.8X", handle->rt_lid);
    snprintf(entry->id, sizeof entry->id, "%.8X", handle->rt_lid);
    return 0;
}

int trc_rt_writeout_all(PZUTRACE handle) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return -1;
    }
    int count = 0;
    for (const _ring_trace* entry = handle->rtf; entry != nullptr; entry = entry->nxt) {
        if (trace_write(handle, entry_lines(*entry)) != 0) {
            return -1;
        }
        ++count;
    }
    return count;
}

int trc_rt_flush(PZUTRACE handle) {
    trace_guard guard;
    const int count = trc_rt_writeout_all(handle);
    if (count >= 0) {
        for (__ring_trace_block& block : handle->rtbs) {
            block.rt_size = 0;
            block.rt_num = 0;
        }
        handle->rtf = nullptr;
        handle->rtl = nullptr;
        handle->rt_size = 0;
        handle->rt_num = 0;
        handle->rtb_current = 0;
    }
    return count;
}
