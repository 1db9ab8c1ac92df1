// A job processor in the test's own process, with settings from a file of the test.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/time.h"
#include "jobs/activation.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/meld.h"
#include "jobs/process_info.h"
#include "jobs/queries.h"
#include "jobs/supervision.h"
#include "launch/launch_settings.h"
#include "messages/records_job.h"
#include "messages/records_meld.h"
#include "messages/records_server.h"
#include "module_fixture.h"

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

struct job_test : module_test {
    // Names the shell, since the test's own user may have one that logs nobody in.
    std::string rest = "M='sh'";

    void SetUp() override {
        module_test::SetUp();
        pcx->Per_JobCheck = 30;
        pcx->pcx_ProcInfo = 1;
        open_with("[USERID]\nroot=START\n");
    }

    void TearDown() override {
        JP_Close(pcx);
        module_test::TearDown();
    }

    void open_with(const std::string& ini) {
        write_text(pcx->IniFile, ini);
        qx7_error error;
        ASSERT_EQ(JP_Open(pcx, &error), 0);
        process_info_forget();
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

    int cancel(int run) {
        auto order = new_message<MSG_TYPE_JOB_CAN>(client, number);
        order.ah_idnr = run;
        return receive(process_jobcan, order);
    }

    // The periodic check of a job, made now.
    void check_now(JP_AREA* job) {
        job->JP_alrmTime = alarm_now();
        process_jobchk(pcx, nullptr, 0);
    }

    void check_in(int seconds) {
        alarm_clock_advance(seconds);
        process_jobchk(pcx, nullptr, 0);
    }

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

    // One that was made from a query: no SIGCHLD will come for it.
    JP_AREA* rebuilt_job(int run) {
        JP_AREA* job = bare_job(run);
        job->JP_create = JOB_ORIGIN_QUERY;
        job->JP_flag &= ~job_flag_own_child;
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
};
