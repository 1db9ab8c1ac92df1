// What the tests of this folder share: a collecting logger, an installation in a folder of its own, and a
// channel manager without network thread.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/settings.h"
#include "agent/shutdown.h"
#include "base/context.h"
#include "base/locks.h"
#include "channels/messages.h"
#include "log/log.h"
#include "log/trace.h"
#include "log_collector.h"
#include "own_context.h"

struct collected_log {
    collected_log() {
        forget_lines();
        __log_set_logger(collect_line);
    }
    ~collected_log() { __log_set_logger(nullptr); }
};

// An INI file beside a program, and the context made from it.
struct installed_agent {
    own_folder folder;
    std::string sections;
    qx7_error error;
    EX_PCX* pcx = nullptr;
    collected_log log;

    installed_agent() {
        mkdir((folder / "bin").c_str(), 0755);
        std::ofstream(program()) << "program";
        std::ifstream library(QX_SOURCE_DIR "/share/QXX.msl");
        std::ofstream(folder / "bin/QXX.msl") << library.rdbuf();
        sections =
            "[GLOBAL]\nsystem=testsys\nname=agent1\n[VARIABLES]\nQX_EX_JOB_MD=./"
            "qxxjlnxm\nQX_EX_PATH_CACHE=../res\n";
    }
    ~installed_agent() {
        __log_set_logger(log_dummy);
        if (pcx != nullptr) {
            Close_All(pcx, 0, 1);
        }
    }
    std::string program() const { return folder / "bin/qxxjlnx"; }
    std::string ini() const { return folder / "bin/qxxjlnx.ini"; }
    // What stands in the file of the log.
    std::string log_text() const {
        std::ifstream file(folder / "temp/QXXJxxx.l00");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    EX_PCX* init() {
        std::ofstream(ini()) << sections;
        init_logLock();
        init_traceLock();
        init_effUserLock();
        pcx = PcxInit(ini().c_str(), program().c_str(), &error);
        return pcx;
    }
};

// A context with a channel manager whose queues the test looks into.
struct channel_context {
    own_context own;
    EX_PCX* pcx = own.pcx.get();
    collected_log log;

    channel_context() {
        ccm_error_t error;
        EXPECT_EQ(ccm_open(pcx, &pcx->ccm, &error), 0) << error.qx_msgInsert;
        copy_text(pcx->exName, "AGENT1");
        copy_text(pcx->sysName, "TESTSYS");
        pcx->loop = LOOP_RUNNING;
        pcx->Per_Reconnect = 60;
        pcx->connwait = 20;
    }
    ~channel_context() {
        ccm_error_t error;
        ccm_channel_closeall(pcx->ccm);
        ccm_close(pcx->ccm, &error);
        pcx->ccm = nullptr;
    }
    // The newest message on its way out: the bytes from the type `name` on, empty when none holds it.
    std::string sent(const std::string& name) const {
        for (const ccm_msg_t* msg = pcx->ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
            const std::string frame(reinterpret_cast<const char*>(msg->msg_start),
                                    static_cast<size_t>(msg->len));
            const size_t at = frame.find(name);
            if (at != std::string::npos) {
                return frame.substr(at);
            }
        }
        return "";
    }
    int sent_count() const { return ccm_get_sendq_count(pcx->ccm); }
    // A received message for a module.
    ccm_msg_t* received(const std::string& body, const char* module = "QXEXVAR",
                        const char* source = "QXVAREXR") {
        ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx->ccm, static_cast<int>(body.size()), nullptr);
        memcpy(ccm_msg_body(msg), body.data(), body.size());
        msg->type = CCM_MSG_NAT;
        ccm_setaddr(msg, 0, 0, "", module, 0);
        ccm_setback(msg, "", source, 7);
        return msg;
    }
};
