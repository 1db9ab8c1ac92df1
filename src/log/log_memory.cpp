// The log's lines in memory, which wait for the server.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "log/log_output.h"
#include "log/log_parts.h"

namespace {

ZULOGG_MSG_BUFFER* make_line(std::string_view text) {
    ZULOGG_MSG_BUFFER* line = static_cast<ZULOGG_MSG_BUFFER*>(malloc(sizeof *line + text.size()));
    if (line != nullptr) {
        line->nxt = nullptr;
        line->MsgStatus = LOG_LINE_TO_SEND;
        line->length = static_cast<uint32_t>(text.size());
        memcpy(line->text, text.data(), text.size());
        line->text[text.size()] = '\0';
    }
    return line;
}

void count_lines(_pzulogg* handle, int change) {
    handle->msgCount += change;
    if (GlbPcx != nullptr) {
        GlbPcx->LogBuffRecNr.store(handle->msgCount, std::memory_order_relaxed);
    }
}

void drop_first_line(_pzulogg* handle) {
    ZULOGG_MSG_BUFFER* first = handle->pFirstMsg;
    handle->pFirstMsg = first->nxt;
    if (first->nxt == nullptr) {
        handle->pLastMsg = nullptr;
    }
    free(first);
    count_lines(handle, -1);
}

void (*line_waker)() = nullptr;  // under the log lock

// The server's log has a hole: the first line behind it tells how many are missing.
void note_dropped_lines(_pzulogg* handle) {
    if (handle->dropped == 0) {
        return;
    }
    size_t stamp_length = 0;
    ZULOGG_MSG_BUFFER* note = make_line(INT_Header(handle, &stamp_length) + std::to_string(handle->dropped) +
                                        " log lines were dropped here: the server took none for too long");
    if (note == nullptr) {
        return;
    }
    note->nxt = handle->pFirstMsg;
    handle->pFirstMsg = note;
    if (handle->pLastMsg == nullptr) {
        handle->pLastMsg = note;
    }
    handle->dropped = 0;
    count_lines(handle, 1);
}

}  // namespace

void Put_MsgBuff(_pzulogg* handle, std::string_view text) {
    const bool first = handle->pFirstMsg == nullptr;
    while (handle->msgCount >= log_memory_lines) {
        drop_first_line(handle);
        ++handle->dropped;
    }
    ZULOGG_MSG_BUFFER* line = make_line(text);
    if (line == nullptr) {
        ++handle->dropped;
        return;
    }
    (handle->pLastMsg == nullptr ? handle->pFirstMsg : handle->pLastMsg->nxt) = line;
    handle->pLastMsg = line;
    count_lines(handle, 1);
    if (first && line_waker != nullptr && !on_main_thread()) {
        line_waker();
    }
}

void log_set_waker(void (*waker)()) {
    log_guard guard;
    line_waker = waker;
}

int ZULOGG_UseMsg(PZULOGG handle, bool on) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->msgFlg = on ? 1 : 0;
    return 0;
}

ZULOGG_MSG_BUFFER* ZULOGG_GetMsg(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return nullptr;
    }
    note_dropped_lines(handle);
    for (ZULOGG_MSG_BUFFER* line = handle->pFirstMsg; line != nullptr; line = line->nxt) {
        if (line->MsgStatus == LOG_LINE_TO_SEND) {
            line->MsgStatus = LOG_LINE_BEING_SENT;
            return line;
        }
    }
    return nullptr;
}

int ZULOGG_PutMsg(PZULOGG handle, ZULOGG_MSG_BUFFER* line) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    for (ZULOGG_MSG_BUFFER* each = handle->pFirstMsg; each != nullptr; each = each->nxt) {
        if (line == nullptr || each == line) {
            each->MsgStatus = LOG_LINE_TO_SEND;
        }
    }
    return 0;
}

int ZULOGG_DelMsg(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return 0;
    }
    int removed = 0;
    ZULOGG_MSG_BUFFER** link = &handle->pFirstMsg;
    handle->pLastMsg = nullptr;
    while (*link != nullptr) {
        ZULOGG_MSG_BUFFER* line = *link;
        if (line->MsgStatus == LOG_LINE_BEING_SENT) {
            *link = line->nxt;
            free(line);
            ++removed;
        } else {
            handle->pLastMsg = line;
            link = &line->nxt;
        }
    }
    count_lines(handle, -removed);
    return removed;
}

int ZULOGG_SetMsg(PZULOGG handle, const char* text, int length) {
    log_guard guard;
    if (!is_log(handle) || text == nullptr) {
        return 1;
    }
    Put_MsgBuff(handle,
                {text, std::min(length < 0 ? strlen(text) : static_cast<size_t>(length), log_longest_line)});
    return 0;
}

int ZULOGG_FreeMsg(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    while (handle->pFirstMsg != nullptr) {
        drop_first_line(handle);
    }
    return 0;
}

int ZULOGG_NrMsg(PZULOGG handle) {
    log_guard guard;
    return is_log(handle) ? handle->msgCount : 0;
}
