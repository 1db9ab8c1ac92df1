#include "jobs/job_send.h"

#include <string>

#include "base/context.h"
#include "channels/replies.h"
#include "jobs/job_area.h"

int create_and_send_quitt_message(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert) {
    return send_quitt_reply(pcx, msg, msgnr, insert, msgnr == 0 ? "OK" : "NK", nullptr, 0);
}

int job_send_quitt_ok(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert) {
    return send_quitt_reply(pcx, msg, msgnr, insert, "OK", nullptr, 0);
}

int create_and_send_aktj_quitt_message(EX_PCX* pcx, const JP_AREA* job, int msgnr, const char* insert) {
    if (job->ccmaddr == nullptr) {
        return -1;
    }
    const QX_HEADM& asked = job->jp_headm;
    const auto quitt = make_quitt(
        {get_text(asked.msg_typ), asked.i2Mandant, asked.i4UsrIdNr, msgnr, insert, msgnr == 0 ? "OK" : "NK"});
    return send_built(pcx->ccm, quitt, to_kept(*job->ccmaddr));
}

void job_put_pid(char (&field)[10], uint32_t pid) {
    put_text(field, std::to_string(pid));
}

ccm_addr_t* job_keep_address(const ccm_msg_t* msg) {
    return new ccm_addr_t(msg->addr);
}
