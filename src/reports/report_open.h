// The start of a transfer: which file a request means, and who may read it. Main thread.
#pragma once

#include <memory>
#include <string>

#include "messages/view.h"
#include "reports/reports.h"

struct ccm_addr_t;
struct my_passwd_unlimited;

inline constexpr char report_server_module[] = "QXREPRTR";

// Where the request's file is, and who may read it. The failure's number and insert on -1.
struct report_source {
    std::string file;
    std::string user;  // empty: the agent
    bool with_login = false;
    int number = 0;
    std::string insert;
};

// The file of `get`; that of a command of the service console is made first, and is erased once it was sent.
// `passwd` is filled when the request names a user. 0, or -1 with number and insert in `source`.
int find_source(EX_PCX* pcx, MSG_TYPE_REP_GET* get, report_source* source, my_passwd_unlimited* passwd);
// Opens it for its reader. 0, or -1 with number and insert in `source`.
int open_source(EX_PCX* pcx, report_source* source, const my_passwd_unlimited& passwd, qx_descriptor* out);
// The transfer that `get` opens, without its file.
std::unique_ptr<REP_Area> make_area(EX_PCX* pcx, const MSG_TYPE_REP_GET& get, message_view view,
                                    const report_source& source, const ccm_addr_t& from);
