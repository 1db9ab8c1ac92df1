// The job lines that the messenger writes into a job's report.
#pragma once

#include <string_view>

#include "jobs/job_area.h"

struct qx7_error;

// Reads the report for start, end, return code and registered files. Found an end with a return code: times,
// state 'E' or 'A', retCode and infoText are set, the end counts as taken, and the result is the process id
// (at least 1). Otherwise -1, retCode is -1, and the entry keeps its start time. Files not yet known are
// registered in both cases. Never waits: only regular files are read, and only files that are the job's.
int ReadReport(JP_AREA* job, qx7_error* error);
// Reads the lines of the report of `job` into `scan`, an entry of its own that is in no table. true when the
// report could be opened.
bool report_scan_file(const JP_AREA* job, JP_AREA* scan, qx7_error* error);
// Takes one line into the entry. The line has no end mark.
void ChkRprtRec(JP_AREA* job, std::string_view line);

// Appends a registered file; the name is cut to its limit. false when the job has too many or the name is
// empty.
bool job_add_file(JP_AREA* job, char login, std::string_view name);
// The same for a file told by the job itself: a file that the job's user cannot open gets the mark 'Y',
// whatever was asked, and one that is registered already is not registered again when `once`.
bool job_register_file(JP_AREA* job, char login, std::string_view name, bool once);
