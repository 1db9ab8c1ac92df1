// The lines about stored resources that stand ahead of all output in a job's report.
#include "base/message_numbers.h"
#include "base/time.h"
#include "jobs/activation.h"
#include "launch/launch.h"

namespace {

std::string stamp(long seconds) {
    const time_t time = seconds;
    DATUM_BUFF date;
    GetDatumZeit2(&time, &date);
    return date.text;
}

void append_message(std::string* lines, long seconds, int number, const std::string& inserts) {
    *lines += stamp(seconds) + " - " + launch_message_line(number, inserts) + "\n";
}

// A resource that was there already has only the second line.
void append_resource(std::string* lines, const resource_item& item, int start_number, int end_number,
                     const std::string& inserts) {
    if (item.usage_type != RESOURCE_EXISTED) {
        append_message(lines, item.start_timestamp, start_number, inserts);
    }
    append_message(lines, item.end_timestamp, end_number, inserts);
}

std::string resource_inserts(const JP_AREA* job, const resource_item& item) {
    return std::to_string(job->JP_jobNr) + "|" + std::to_string(job->JP_Mandant) + ":" + item.object_name +
           "/" + item.resource_name;
}

}  // namespace

std::string job_report_head(const JP_AREA* job) {
    std::string lines;
    for (const key_entry& used : job->jp_used_client_resource_list) {
        for (const resource_item& item : resource_context()->used_resource_list) {
            if (item.key == used.key) {
                append_resource(&lines, item, number_client_resource_started, number_client_resource_ended,
                                resource_inserts(job, item));
            }
        }
    }
    for (const resource_item& item : job->jp_used_task_resource_list) {
        append_resource(&lines, item, number_task_resource_started, number_task_resource_ended,
                        resource_inserts(job, item) + "|" + item.file_path);
    }
    return lines;
}
