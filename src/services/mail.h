// Mail orders of the server: SNDMAIL and SNDMAIL2, sent in turn by one worker thread through a relay.
#pragma once

#include <string>
#include <vector>

#include "base/error.h"
#include "services/relay.h"

struct EX_PCX;
struct ccm_msg_t;

inline constexpr size_t mail_orders_max = 1000;  // that wait

// Reads section MAIL of the INI file; `pcx_smtpMail` is on when it names a server. Main thread.
void initSmtpMail(EX_PCX* pcx);

// Both queue the order; its QUITT goes out when it is done. Main thread.
int process_sendmail(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_sendmail2(EX_PCX* pcx, ccm_msg_t* msg, int row);

// Stops the worker: a mail under way is broken off, waiting ones are dropped, nothing is answered any more.
// Waits for a moment only, since a resolver may hold the thread. Main thread of the agent, before the channel
// manager goes.
void mail_close(EX_PCX* pcx);

// What a mail needs besides its order.
struct smtp_settings {
    std::string charset = "iso-8859-1";
    int port = smtp_port;  // no setting changes it
    int stop_fd = -1;
    std::string reply_to;
    char priority = ' ';  // 'L' low, 'H' high
};

// Sends one mail; blocks its thread. `order` is complete (sender, server, user filled from the settings). 0,
// or
// -1 with the number and its insert in `error`. Any thread but the main one.
int qxsmtp_sendMailEx(const mail_order& order, const smtp_settings& settings, const relay_warning& warn,
                      qx7_error* error);
// Logs on to a relay and off again.
int qxsmtp_check(const mail_order& order, const smtp_settings& settings, qx7_error* error);
