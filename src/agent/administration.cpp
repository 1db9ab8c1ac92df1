#include "agent/administration.h"

#include <sys/times.h>

#include <cstring>
#include <string>
#include <vector>

#include "agent/shutdown.h"
#include "agent/system_variables.h"
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/messages.h"
#include "channels/outgoing.h"
#include "channels/replies.h"
#include "jobs/job_table.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "messages/view.h"
#include "transfer/ftx/module.h"

namespace {

constexpr int channels_max = 1024;
constexpr int trace_flag_count = 16;

// Processor time of the agent itself in hundredths of a second.
int32_t processor_time(const EX_PCX* pcx) {
    tms used;
    if (times(&used) == static_cast<clock_t>(-1) || pcx->Takt <= 0) {
        return 0;  // the figure is for display
    }
    return static_cast<int32_t>((used.tms_utime + used.tms_stime) * 100 / pcx->Takt);
}

void fill_exinfo(EX_PCX* pcx, const MSG_TYPE_EXQUERY& query, MSG_TYPE_EXINFO* info) {
    info->srvtime = query.srvtime;
    info->extime = timestamp_now();
    info->ping1 = query.ping1;
    info->ping2 = query.ping2;
    info->ftcount = ftx_get_nof_ftx_processes();
    info->jobcount = jpGetJobCount();
    info->connectcount = ccm_get_nof_connections(pcx->ccm);
    info->cputime = processor_time(pcx);
    info->sysflag = 1;
    memset(info->filler, ' ', sizeof info->filler);
    info->pcount = GetCPUs();
    // Nothing to tell: zero bytes, where other texts are blank.
    memset(info->msg_insert, 0, sizeof info->msg_insert);
    memset(info->hardware, 0, sizeof info->hardware);
    memset(info->software, 0, sizeof info->software);
    memset(info->sw_version, 0, sizeof info->sw_version);
}

std::string trace_flags(const EX_PCX* pcx) {
    std::string flags;
    for (int at = 0; at < trace_flag_count; ++at) {
        const char level = pcx->trcFlgs[at].load();
        flags += level == '\0' ? '0' : level;
    }
    return flags;
}

// Maximum, memory trace and trigger, each but the last followed by a zero byte; an older server gets four
// zero bytes.
std::string trace_data(const EX_PCX* pcx, int version) {
    if (version <= 1) {
        return std::string(4, '\0');
    }
    std::string data = std::to_string(pcx->trc_max_size);
    data += '\0';
    data += (pcx->trc_flag & TRC_SETTING_MEMORY) != 0 ? '1' : '0';
    data += '\0';
    data += pcx->trc_trigger_type;
    data += '\0';
    data += pcx->trc_trigger_text == nullptr ? "" : pcx->trc_trigger_text;
    return data;
}

bool is_on(char letter) {
    return letter == '1' || letter == 'Y';
}

void set_trigger(EX_PCX* pcx, char type, std::string_view text) {
    free(pcx->trc_trigger_text);
    const std::string copy(text);
    pcx->trc_trigger_text = copy.empty() ? nullptr : strdup(copy.c_str());
    pcx->trc_trigger_type = type;
    ZUTRACE_set_trigger(pcx->trcHnd, type, copy.c_str());
}

void set_ring(EX_PCX* pcx, const MSG_TYPE_TRCSET& order) {
    if (order.max_size > 0) {
        pcx->trc_max_size = order.max_size;
    }
    if (is_on(order.mem_trace)) {
        pcx->trc_flag |= TRC_SETTING_MEMORY;
        if (trc_set_rt_size(pcx->trcHnd, pcx->trc_max_size) != 0) {
            __log(-1, "no memory for a ring trace of %d megabytes, the trace goes on in its file",
                  pcx->trc_max_size);
        }
    } else {
        pcx->trc_flag &= ~TRC_SETTING_MEMORY;
        trc_set_rt_size(pcx->trcHnd, 0);
    }
}

void apply_trace_order(EX_PCX* pcx, const MSG_TYPE_TRCSET& order, message_view view) {
    trc_set_flags(pcx, std::string_view(order.flags, sizeof order.flags));
    if (message_version(&order.header) < 2) {
        return;
    }
    set_trigger(pcx, order.trigger_type, view_text(view, order.trigger_dist, order.trigger_len));
    if (is_on(order.dump_memory)) {
        trc_rt_writeout_all(pcx->trcHnd);
    }
    set_ring(pcx, order);
    if (is_on(order.force_trace)) {
        zutrace_start_tracing(pcx->trcHnd);
    }
}

// By collected IDs: the lock is not held while a message is made.
int forward_to_family(EX_PCX* pcx, const ccm_msg_t* msg) {
    std::vector<int> ids(channels_max);
    const int count = ccm_channel_collect(pcx->ccm, CH_TYPE_IPC, ids.data(), channels_max);
    int result = 0;
    for (int at = 0; at < count; ++at) {
        ccm_channel_image_t channel;
        if (ccm_channel_copy(pcx->ccm, ids[static_cast<size_t>(at)], &channel) != 0) {
            continue;  // ended meanwhile
        }
        ccm_error_t error;
        if (ccm_forward_NAT_message(pcx->ccm, msg, channel.ID, channel.name, &error, 1) != 0) {
            __log_error(error);
            result = -1;
        }
    }
    return result;
}

void log_forced_text(const MSG_TYPE_TRCSET& order, message_view view) {
    const std::string_view text = view_text(view, order.zwang_info_dist, order.zwang_info_len);
    if (message_version(&order.header) >= 2 && !text.empty()) {
        __log(order.zwang_info_msgnr == 0 ? -1 : order.zwang_info_msgnr, "%s", printable(text).c_str());
    }
}

}  // namespace

int process_exquery(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto query = view_record<MSG_TYPE_EXQUERY>(view_of(msg));
    message_builder<MSG_TYPE_EXINFO> info(query.header, 2);
    fill_exinfo(pcx, query, &info.record);
    return send_built(pcx->ccm, info, to_sender(msg));
}

int process_srvinfo(EX_PCX* pcx, ccm_msg_t*, int) {
    pcx->unquitted_srvqry = 0;
    return 0;
}

int process_trcget(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const QX_HEADM head = view_head(view_of(msg));
    const std::string flags(rstrip(trace_flags(pcx)));
    const std::string data = trace_data(pcx, message_version(&head));
    return send_quitt_reply(pcx, msg, 0, flags.c_str(), "OK", data.data(), static_cast<int>(data.size()));
}

int process_trcset(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto order = view_record<MSG_TYPE_TRCSET>(view);
    apply_trace_order(pcx, order, view);
    if (pcx->running_mode != MODE_AGENT) {
        return 0;
    }
    __log(number_trace_flags, "%s|", trace_flags(pcx).c_str());
    const int result = forward_to_family(pcx, msg);
    if (result == 0) {
        LOG_TraceMsgStack(pcx);
        log_forced_text(order, view);
    }
    return result;
}

int process_quitt(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto quitt = view_record<MSG_TYPE_QUITT>(view);
    const bool has_content = quitt.msg_dist != 0 && quitt.msg_len != 0;
    const std::string insert =
        printable(has_content ? view_text(view, quitt.msg_dist, quitt.msg_len) : get_text(quitt.msg_insert));
    if (quitt.msgnr > 0) {
        __log(quitt.msgnr, "%s", insert.c_str());
    }
    if (get_text(quitt.msg) == "EXSTART2" && get_text(quitt.quitt) == "NK") {
        initiate_agent_shutdown(pcx);  // the server does not want this agent
    }
    return 0;
}
