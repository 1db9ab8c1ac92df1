// The job lines that the messenger writes into a job's report.
#pragma once

#include <string_view>

#include "jobs/job_area.h"

struct qx7_error;

// Reads the report for start, end, return code and registered files. Found an end with a return code: times,
// state 'E' or 'A', retCode and infoText are set and the result is the process id (at least 1). Otherwise -1,
// retCode is -1, and the entry keeps its start time. Never waits: only regular files are read.
int ReadReport(JP_AREA* job, qx7_error* error);
// Takes one line into the entry. The line has no end mark.
void ChkRprtRec(JP_AREA* job, std::string_view line);
// Appends a registered file; the name is cut to its limit. false when the job has too many.
bool job_add_file(JP_AREA* job, char login, std::string_view name);
