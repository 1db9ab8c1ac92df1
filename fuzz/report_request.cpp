// REP_GET with patterns, limits and blocks, the questions that follow it, and what stands in the file. The
// first byte chooses the kind of order and of file: given as text, or lines of a length that is repeated.
// Every order is answered by a block or by the end; no block is longer than was asked for, and every line in
// it ends; without pattern and limits, what comes is the file, line by line.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "agent_side.h"
#include "messages/frame.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "reports/reports.h"

namespace {

void preset_get(message_bytes* message) {
    constexpr char type[] = "REP_GET ";
    set_number(message, type, "ah_idnr", fuzz_run);
    set_field(message, type, "filename", sandbox().folder + "/home/report");
    set_number(message, type, "blksize", 1000);
    set_field(message, type, "erase", "0");
}

void preset_with_login(message_bytes* message) {
    preset_get(message);
    set_field(message, "REP_GET ", "filename", "report");
    set_field(message, "REP_GET ", "logininfo", sandbox_user);
}

void preset_quit(message_bytes* message) {
    set_number(message, "REP_QUIT", "ah_idnr", fuzz_run);
}

constexpr fuzz_order get_orders[] = {{"QXREPEX", "REP_GET ", preset_get},
                                     {"QXREPEX", "REP_GET ", preset_with_login}};
constexpr fuzz_order next_block = {"QXREPEX", "REP_QUIT", preset_quit};
constexpr fuzz_order stop = {"QXREPEX", "REP_STOP", nullptr};

std::string content_of(byte_source* source, bool repeated) {
    if (!repeated) {
        return std::string(source->text());
    }
    std::string content;
    const std::string_view line = source->text();
    for (size_t count = static_cast<size_t>(source->byte()) * 16; count > 0 && content.size() < 20000;
         --count) {
        content.append(line).push_back('\n');
    }
    return content;
}

// The text of a block; an abort for one that is not sound.
std::string block_text(const ccm_msg_t* msg, int blksize) {
    frame_body items;
    const unsigned char* body = msg->msg_start + frame_header_size;
    if (msg->type != CCM_MSG_NAT ||
        frame_parse_body(body, static_cast<size_t>(msg->len) - frame_header_size, &items, nullptr) != 0) {
        return {};
    }
    const message_view view = view_message(body + items.offset, items.length);
    if (!message_type_is(view.data, view.length, "REP_DATA")) {
        return {};
    }
    const auto data = view_record<MSG_TYPE_REP_DATA>(view);
    const std::string text(view_text(view, data.data_dist, data.data_len));
    if (static_cast<int>(text.size()) != data.data_len || data.data_len > blksize ||
        !text.ends_with("\r\n")) {
        abort();
    }
    return text;
}

std::string sent_text(int blksize) {
    std::string text;
    for (const ccm_msg_t* msg = fuzz_agent().ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
        text += block_text(msg, blksize);
    }
    return text;
}

size_t answer_count() {
    const auto answers = fuzz_answers();
    return static_cast<size_t>(std::count(answers.begin(), answers.end(), "REP_DATA") +
                               std::count(answers.begin(), answers.end(), "REP_END "));
}

void give(const message_bytes& message, bool known) {
    const size_t before = answer_count();
    const bool taken = fuzz_give("QXREPEX", message);
    if (taken && answer_count() != before + (known ? 1 : 0)) {
        abort();
    }
}

// What a whole report is: each line with CR LF, where no line is longer than a block takes.
bool whole_report(const std::string& content, const MSG_TYPE_REP_GET& get, int blksize,
                  std::string* expected) {
    if (get.maxrecords > 0 || get.maxblk > 0 || get.match_len != 0 || get.code_len != 0 || get.rep_blk != 0) {
        return false;
    }
    expected->clear();
    size_t at = 0;
    while (at < content.size()) {
        const size_t end = std::min(content.find('\n', at), content.size());
        if (end - at > static_cast<size_t>(blksize) - 2) {
            return false;
        }
        expected->append(content, at, end - at).append("\r\n");
        at = end + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) {
        return 0;
    }
    EX_PCX& pcx = fuzz_agent();
    byte_source source(data, size);
    const uint8_t choice = source.byte();
    const std::string content = content_of(&source, (choice & 2) != 0);
    std::ofstream(sandbox().folder + "/home/report", std::ios::binary) << content;
    fuzz_begin();
    const message_bytes get = fuzz_message(&source, get_orders[choice & 1]);
    give(get, true);
    const auto record = view_record<MSG_TYPE_REP_GET>(view_message(get.data(), get.size()));
    const int blksize = std::clamp(record.blksize, report_block_min, report_block_max);
    bool plain = true;
    for (int i = 0; i < 6 && source.left() > 0; ++i) {
        plain = false;
        if (source.byte() % 8 == 7) {
            fuzz_give(stop.module, fuzz_message(&source, stop));
            continue;
        }
        const message_bytes quit = fuzz_message(&source, next_block);
        const auto number = view_record<MSG_TYPE_REP_QUIT>(view_message(quit.data(), quit.size())).ah_idnr;
        give(quit, getReportEntry(&pcx, number) != nullptr);
    }
    // The rest of the transfer, as a server asks for it.
    const bool opened = getReportEntry(&pcx, record.ah_idnr) != nullptr;
    for (int block = 1; block < 500 && getReportEntry(&pcx, record.ah_idnr) != nullptr; ++block) {
        byte_source nothing(data, 0);
        message_bytes quit = fuzz_message(&nothing, next_block);
        set_number(&quit, next_block.type, "ah_idnr", record.ah_idnr);
        set_number(&quit, next_block.type, "rep_blk", block);
        give(quit, true);
    }
    std::string expected;
    if (opened && plain && whole_report(content, record, blksize, &expected) &&
        sent_text(blksize) != expected) {
        abort();
    }
    deleteAllReportEntry(&pcx);
    fuzz_end();
    return 0;
}
