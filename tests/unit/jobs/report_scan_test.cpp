#include "jobs/report_scan.h"

#include <sys/stat.h>

#include "job_fixture.h"
#include "jobs/job_time.h"

namespace {

constexpr char start_line[] =
    "**  JOB 1 START AT 04.03.2026 / 07:06:07 UTC TIME 04.03.2026 / 06:06:07 ProcID:4242\n";
constexpr char end_line[] =
    "**  JOB 1 ENDED AT 04.03.2026 / 08:00:01 UTC TIME 04.03.2026 / 07:00:01 ProcID:4242\n";

std::string stamp(const MSG_TYPE_TIMESTAMP& time) {
    char text[64];
    snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", time.jjjj, time.mo, time.tt, time.hh, time.mi,
             time.ss);
    return text;
}

}  // namespace

struct scan_case {
    const char* what;
    std::string text;
    int result;  // -1: no end
    int retcode;
    char status;
    std::string start;
    std::string end;
};

TEST_F(job_test, the_report_tells_start_end_and_return_code) {
    const std::string good_end = std::string(end_line) + "**  TEXT=\"\" RETCODE=0\n";
    const scan_case cases[] = {
        {"whole", start_line + good_end, 4242, 0, 'E', "20260304060607", "20260304070001"},
        {"code", std::string(start_line) + end_line + "**  TEXT=\"\" RETCODE=-12\n", 4242, -12, 'A',
         "20260304060607", "20260304070001"},
        {"restart is no start",
         start_line +
             std::string("**  JOB 1 RESTART AT 05.03.2026 / 07:06:07 UTC TIME 05.03.2026 / 06:06:07\n") +
             good_end,
         4242, 0, 'E', "20260304060607", "20260304070001"},
        {"no end", start_line, -1, -1, 'R', "20250101000000", "00000000000000"},
        {"end without code", std::string(start_line) + end_line, -1, -1, 'R', "20250101000000",
         "00000000000000"},
        {"no date", "**  JOB 1 ENDED AT xx.03.2026 / 08:00:01\n**  TEXT=\"\" RETCODE=3\n", -1, -1, 'R',
         "20250101000000", "00000000000000"},
        {"lines of the job inside a line", std::string("echo ") + end_line + "**  TEXT=\"\" RETCODE=3\n", -1,
         -1, 'R', "20250101000000", "00000000000000"},
        {"a last line without its end", start_line + std::string(end_line) + "**  TEXT=\"\" RETCODE=4", 4242,
         4, 'A', "20260304060607", "20260304070001"},
        {"long lines and CR",
         std::string(5000, 'x') + "\n" + start_line + std::string(70000, 'y') + "\n" + end_line +
             "**  TEXT=\"\" RETCODE=7\r\n",
         4242, 7, 'A', "20260304060607", "20260304070001"},
        {"empty", "", -1, -1, 'R', "20250101000000", "00000000000000"},
    };
    for (const scan_case& row : cases) {
        SCOPED_TRACE(row.what);
        JP_AREA* job = bare_job(1);
        job->JP_status = JOB_STATUS_RUNNING;
        job->JP_sTime_t = 1735689600;
        job->JP_sTime = job_timestamp(job->JP_sTime_t);
        job_set_text(job->JP_jReport, folder / "report");
        write_text(job->JP_jReport, row.text);
        qx7_error error;
        EXPECT_EQ(ReadReport(job, &error), row.result);
        EXPECT_EQ(job->retCode, row.retcode);
        EXPECT_EQ(job->JP_status, row.status);
        EXPECT_EQ(stamp(job->JP_sTime), row.start);
        EXPECT_EQ(stamp(job->JP_eTime), row.end);
        EXPECT_EQ((job->JP_flag & job_flag_end_taken) != 0, row.result != -1);
        Erase_JEntry(1, client);
    }
}

TEST_F(job_test, a_process_id_of_the_report_never_replaces_a_known_one) {
    JP_AREA* job = bare_job(1);
    ChkRprtRec(job, "**  JOB 1 START AT x ProcID:77");
    EXPECT_EQ(job->m_ppid, 77);
    ChkRprtRec(job, "**  JOB 1 START AT x ProcID:78");
    EXPECT_EQ(job->m_ppid, 77);
    EXPECT_EQ(job->akt_pid, 78u);
    ChkRprtRec(job, "**  JOB 1 START AT x ProcID:1");
    EXPECT_EQ(job->akt_pid, 78u) << "1 is never a job";
}

TEST_F(job_test, registered_files_of_the_report_are_taken_once_and_only_readable_ones_keep_their_mark) {
    JP_AREA* job = bare_job(1);
    const std::string readable = folder / "readable";
    write_text(readable, "x");
    const auto line = [](char mark, const std::string& name) {
        return std::string("QX7 messenger '12.2.0' login check '") + mark + "' registered output file '" +
               name + "'\n";
    };
    job_set_text(job->JP_jReport, folder / "report");
    write_text(job->JP_jReport,
               line('N', readable) + line('N', "/no/such/file") + line('Y', readable) + "QX7 messenger '");
    qx7_error error;
    EXPECT_EQ(ReadReport(job, &error), -1);
    EXPECT_EQ(ReadReport(job, &error), -1);
    ASSERT_EQ(job->jp_files.size(), 2u);
    EXPECT_EQ(job->jp_files[0].fle_name, readable);
    EXPECT_EQ(job->jp_files[0].fle_login, 'N');
    EXPECT_EQ(job->jp_files[1].fle_login, 'Y') << "the job's user cannot open it";
    EXPECT_EQ(job->jp_files[1].fle_number, 2);
}

TEST_F(job_test, what_is_no_regular_file_is_no_report) {
    JP_AREA* job = bare_job(1);
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    qx7_error error;
    for (const std::string& name : {pipe, std::string("/dev/null"), folder / "missing", std::string()}) {
        job_set_text(job->JP_jReport, name);
        EXPECT_EQ(ReadReport(job, &error), -1) << name;  // and returns at once
    }
}

TEST_F(job_test, a_report_of_any_size_is_scanned_at_its_ends) {
    JP_AREA* job = bare_job(1);
    job_set_text(job->JP_jReport, folder / "report");
    write_text(job->JP_jReport, start_line);
    // A terabyte of holes: read whole it would hold the agent up for minutes, and its owner can make it in no
    // time.
    ASSERT_EQ(truncate(job->JP_jReport, off_t{1} << 40), 0);
    std::ofstream(job->JP_jReport, std::ios::app) << "\n" << end_line << "**  TEXT=\"\" RETCODE=3\n";
    const int64_t before = bytes_read_so_far();
    qx7_error error;
    EXPECT_EQ(ReadReport(job, &error), 4242);
    EXPECT_LT(bytes_read_so_far() - before, int64_t{1} << 30);
    EXPECT_EQ(job->retCode, 3);
    EXPECT_EQ(stamp(job->JP_sTime), "20260304060607");
    EXPECT_EQ(stamp(job->JP_eTime), "20260304070001");
}
