// The job messenger: called by a job's script, it tells the agent on this host what the job does and writes
// the report lines by which the agent finds out the same if it was not there to listen.
//
// Each job starts it twice, and most of what a call costs is the start: it needs the C library alone, holds
// no table that the loader must fill and opens no file without need.
#include <signal.h>

#include <cstdio>
#include <cstring>

#include "base/version.h"
#include "connection.h"
#include "message.h"
#include "moment.h"
#include "report_lines.h"
#include "request.h"

int main(int argc, char** argv) {
    if (wants_help(argc, argv)) {
        print_help();
        return exit_ok;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("qxxjlnxm %s\n", qx_version);
        return exit_ok;
    }
    request order;
    const int wrong = read_arguments(argc, argv, &order);
    if (wrong != exit_ok) {
        return wrong;
    }
    signal(SIGPIPE, SIG_IGN);  // a report that nobody reads must not keep the message back
    const timespec now = read_clock(CLOCK_REALTIME);
    write_report_lines(order, now.tv_sec);
    message_frame frame;
    make_frame(order, now, &frame);
    return tell_agent(order, frame);
}
