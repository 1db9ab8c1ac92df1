// A job processor in the test's own process: settings from a file of the test, no network thread; what is
// sent is taken from the queue.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/time.h"
#include "channels/internal.h"
#include "channels/outgoing.h"
#include "jobs/activation.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/meld.h"
#include "jobs/process_info.h"
#include "jobs/queries.h"
#include "jobs/supervision.h"
#include "messages/conversion.h"
#include "messages/frame.h"
#include "messages/records_job.h"
#include "messages/records_meld.h"
#include "messages/records_server.h"
#include "messages/view.h"
#include "own_context.h"

using message_bytes = std::vector<unsigned char>;

// Bytes that this process has read so far: says more than a clock about work that must be bounded.
inline int64_t bytes_read_so_far() {
    std::ifstream io("/proc/self/io");
    std::string name;
    int64_t count = 0;
    io >> name >> count;
    return count;
}

// A process that lives as long as this does, and is no child that the agent knows of.
struct living_process {
    pid_t pid = fork();

    living_process() {
        if (pid == 0) {
            for (;;) {
                pause();
            }
        }
    }
    living_process(const living_process&) = delete;
    living_process& operator=(const living_process&) = delete;
    ~living_process() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
};

struct sent_message {
    ccm_addr_t addr;
    message_bytes body;

    std::string type() const { return std::string(body.begin(), body.begin() + 8); }
    template <class Record>
    Record as() const {
        return view_record<Record>(view_message(body.data(), body.size()));
    }
};

struct logged_message {
    int number;
    std::string inserts;
};

inline std::vector<logged_message> job_test_log;

inline void job_test_logger(int number, const char* inserts) {
    job_test_log.push_back({number, inserts == nullptr ? "" : inserts});
}

struct job_test : ::testing::Test {
    own_context context;
    own_folder folder;
    EX_PCX* pcx = context.pcx.get();
    ccm_context_t* ccm = nullptr;
    msgconv_ctx_t conversion;
    log_function former_logger = nullptr;
    std::string user;
    // Names the shell, since the test's own user may have one that logs nobody in.
    std::string rest = "M='sh'";
    int asker_code = 55;  // what the server tells the answer to its message by

    static constexpr uint16_t client = 100;
    static constexpr uint32_t number = 7;

    void SetUp() override {
        job_test_log.clear();
        former_logger = __log_set_logger(job_test_logger);
        user = pcx->pcx_runUserName;
        ASSERT_EQ(ccm_open(pcx, &ccm, nullptr), 0);
        pcx->ccm = ccm;
        msgconv_open(&conversion, nullptr, nullptr, nullptr, nullptr, nullptr, 1);
        pcx->pcx_msgctx = &conversion;
        pcx->Per_JobCheck = 30;
        pcx->pcx_ProcInfo = 1;
        copy_text(pcx->pcx_TmpFolder, folder / "temp");
        copy_text(pcx->pcx_OutFolder, folder / "out");
        copy_text(pcx->pcx_WorkFolder, folder.path);
        copy_text(pcx->pcx_work_dir, folder.path);
        copy_text(pcx->IniFile, folder / "agent.ini");
        std::filesystem::create_directory(folder / "temp");
        std::filesystem::create_directory(folder / "out");
        open_with("[USERID]\nroot=START\n");
        connect_server();
    }

    void TearDown() override {
        JP_Close(pcx);
        ccm_msg_emptying_queues(ccm);
        ccm_channel_closeall(ccm);
        ccm_close(ccm, nullptr);
        msgconv_close();
        __log_set_logger(former_logger);
    }

    void open_with(const std::string& ini) {
        write_text(pcx->IniFile, ini);
        qx7_error error;
        ASSERT_EQ(JP_Open(pcx, &error), 0);
        process_info_forget();
    }

    void connect_server() {
        ccm_channel_t* channel = nullptr;
        ASSERT_EQ(ccm_channel_new_entry(ccm, &channel, nullptr), 0);
        channel->type = CH_TYPE_SERVER;
        copy_text(channel->name, ccm_name_server);
        ccm_channel_chain(ccm, channel);
        pcx->pcx_flag |= PCX_FLAG_SERVER_CHANNEL;
    }

    // Hands a message to a handler as if the server had sent it.
    int receive(int (*handler)(EX_PCX*, ccm_msg_t*, int), const built_message& body) {
        ccm_msg_t* msg = message_of(ccm, body);
        ccm_setaddr(msg, 1, 0, "", "JPAKTJ_R", 0);
        msg->addr.src_ID = 4711;
        copy_text(msg->addr.src_addr, "*CP001#00000001");
        copy_text(msg->addr.src_name, "JPEXEC_R");
        msg->addr.src_acv = asker_code;
        const int result = handler(pcx, msg, 0);
        ccm_msg_free(ccm, msg);
        return result;
    }

    // Everything that was sent since the last call.
    std::vector<sent_message> sent() {
        std::vector<sent_message> all;
        for (ccm_msg_t* msg = ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
            frame_body items;
            const unsigned char* body = msg->msg_start + frame_header_size;
            const size_t length = static_cast<size_t>(msg->len) - frame_header_size;
            if (msg->type == CCM_MSG_NAT && frame_parse_body(body, length, &items, nullptr) == 0) {
                all.push_back(
                    {msg->addr, message_bytes(body + items.offset, body + items.offset + items.length)});
            } else {
                all.push_back({msg->addr, message_bytes(body, body + length)});
            }
        }
        queue_free_all(ccm, &ccm->sendq, &ccm->queue_lock);
        return all;
    }

    // The first of them; an empty one, which says nothing, when there is none.
    sent_message first_sent() {
        auto all = sent();
        return all.empty() ? sent_message{{}, message_bytes(8, ' ')} : all[0];
    }

    static QX_HEADM head(const char* type, int version) {
        QX_HEADM head;
        CreateQxHeadm(&head, type, client, number);
        set_message_version(&head, version);
        return head;
    }

    message_bytes activation(int run, const std::string& script) {
        return activation_of(run, script).bytes();
    }
    message_builder<MSG_TYPE_EXAKTJ> activation_of(int run, const std::string& script) {
        message_builder<MSG_TYPE_EXAKTJ> order(client, number, 2);
        order->ah_idnr = run;
        put_text(order->name, "JOBS.TEST");
        put_text(order->jobfile, job_file(run));
        put_text(order->jobreport, report_file(run));
        put_text(order->logininfo, user);
        order.add(MSG_TYPE_EXAKTJ::rest, rest);
        order.add(MSG_TYPE_EXAKTJ::jcl, script);
        return order;
    }

    std::string job_file(int run) const { return folder / ("temp/job" + std::to_string(run)); }
    std::string report_file(int run) const { return folder / ("out/report" + std::to_string(run)); }

    int activate(const message_bytes& body) { return receive(process_aktj, built_message(body)); }

    // Waits for the child and tells the job processor.
    void end_child(JP_AREA* job) {
        int status = 0;
        const pid_t pid = static_cast<pid_t>(job->fork_pid);
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(process_job_sigchild(pcx, pid, pr_exit(status), status), 1);
    }

    // An entry for which no process was started.
    JP_AREA* bare_job(int run) {
        JP_AREA* job = Create_JEntry(run, client);
        job->jp_uid = geteuid();
        job_set_text(job->JP_user, user);
        job_set_text(job->JP_oName, "JOBS.BARE");
        return job;
    }

    message_bytes meld(int run, char status, int retcode, const char* mark = "") {
        MSG_TYPE_MELD fixed{};
        fixed.header = head("MELD", 3);
        JP_EXMLDJ record{};
        record.jobNr = run;
        record.status = status;
        put_text(record.infoText, 8, mark);
        put_text(record.infoText + 8, 24, "from the messenger");
        put_text(record.md_version, "12.2.0+build.2108");
        record.mdMajor = 12;
        record.retCode = retcode;
        record.sTime = {2026, 3, 4, 5, 6, 7, 0};
        record.pid = getpid();
        record.ppid = getppid();
        message_bytes body(sizeof fixed);
        memcpy(body.data(), &fixed, meld_record_offset);
        memcpy(body.data() + meld_record_offset, &record, sizeof record);
        return body;
    }

    int tell(const message_bytes& body) { return job_take_meld(pcx, body.data(), body.size(), geteuid()); }

    bool logged(int wanted) const {
        for (const logged_message& line : job_test_log) {
            if (line.number == wanted) {
                return true;
            }
        }
        return false;
    }
};
