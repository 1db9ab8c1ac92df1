// The lines in the job's report by which the agent finds out what the job did when it was not there to
// listen.
#pragma once

#include <ctime>

#include "request.h"

// Writes those of the command, if any, to standard output. A failure is one line on standard error: the
// message to the agent counts more than its trace in the report.
void write_report_lines(const request& order, time_t now);
