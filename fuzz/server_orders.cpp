// What a server may say to the agent about itself and its settings: EXSTRTQ2, SRVINFO, TRCSET, CONNECT and
// their neighbours, several in a row. The settings that follow from them stay within what the agent can work
// with.
#include <cstdlib>

#include "agent_side.h"
#include "log/trace.h"
#include "security/key_store.h"

namespace {

void preset_connect(message_bytes* message) {
    constexpr char type[] = "CONNECT ";
    set_field(message, type, "name", "OTHER");
    set_field(message, type, "ipaddr", "127.0.0.1");
    set_number(message, type, "port", 2300);
}

constexpr fuzz_order orders[] = {
    {"QXEXVAR", "EXSTRTQ2", nullptr},        {"QXEXVAR", "TRCSET  ", nullptr},
    {"QXEXVAR", "CONNECT ", preset_connect}, {"QXEXVAR", "SRVINFO ", nullptr},
    {"QXEXVAR", "EXQUERY ", nullptr},        {"QXEXVAR", "TRCGET  ", nullptr},
    {"QXEXVAR", "CHGLOGQU", nullptr},        {"QXEXVAR", "QUITT   ", nullptr},
};
constexpr size_t order_count = sizeof orders / sizeof orders[0];

void settings_are_sound(const EX_PCX& pcx) {
    const bool sound = pcx.Per_JobCheck >= 1 && pcx.Per_KeepAlive >= 1 && pcx.Per_Reconnect >= 1 &&
                       pcx.Per_Report >= 1 && pcx.pcx_cmd_timeout >= 1 && pcx.fsh_check_interval >= 1 &&
                       pcx.ftx_report_intervall >= 1 && pcx.pcx_iIPCount >= 0 && pcx.pcx_iIPCount <= 100 &&
                       (pcx.pcx_JobPwCheck == 0 || pcx.pcx_JobPwCheck == 1);
    if (!sound) {
        abort();
    }
}

// The trace costs time and room, which is not what is sought here.
void trace_off(EX_PCX* pcx) {
    trc_set_flags(pcx, "0000000000000000");
    trc_set_rt_size(pcx->trcHnd, 0);
    pcx->trc_max_size = 1;
    ZUTRACE_set_trigger(pcx->trcHnd, ' ', "");
}

EX_PCX& agent() {
    static bool open = false;
    EX_PCX& pcx = fuzz_agent();
    if (!open) {
        open = true;
        qx7_error error;
        if (GssOpen(&error) != 0) {
            abort();
        }
        byte_source nothing(nullptr, 0);
        fuzz_begin();
        fuzz_give(orders[0].module,
                  fuzz_message(&nothing, orders[0]));  // a first logon sets what had no value yet
        fuzz_end();
    }
    return pcx;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    EX_PCX& pcx = agent();
    byte_source source(data, size);
    fuzz_begin();
    for (int i = 0; i < 4 && source.left() > 0; ++i) {
        const fuzz_order& order = orders[source.byte() % order_count];
        fuzz_give(order.module, fuzz_message(&source, order));
    }
    settings_are_sound(pcx);
    trace_off(&pcx);
    pcx.loop = 1;
    fuzz_end();
    return 0;
}
