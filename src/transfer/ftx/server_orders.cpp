#include "transfer/ftx/server_orders.h"

#include "base/context.h"
#include "base/message_numbers.h"
#include "log/log.h"
#include "transfer/ftx/module.h"

int ftx_forward_to_worker(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr, qx7_error* err) {
    return ccm_forward_NAT_message(pcx->ccm, msg, 0, ftx_worker_name(ah_idnr).c_str(), err, 1);
}

int ftx_pass_to_worker(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr, const char* what) {
    qx7_error error;
    if (ftx_forward_to_worker(pcx, msg, ah_idnr, &error) == 0) {
        return 0;
    }
    __log_error(error);
    return ftx_say_unknown(msg, ah_idnr, what);
}

int ftx_say_unknown(const ccm_msg_t* msg, int ah_idnr, const char* what) {
    __log(number_transfer_unknown, "%d|%s", ah_idnr, what);
    LogDump(what, msg->msg_start, msg->len);
    return -1;
}
