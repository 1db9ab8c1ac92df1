#include "messages/build.h"

#include <gtest/gtest.h>

#include "messages/conversion.h"
#include "messages/records_job.h"
#include "messages/records_report.h"

namespace {

TEST(Build, WhatIsBuiltReadsBackAndPassesTheWalk) {
    message_builder<MSG_TYPE_EXSTAJ> status(100, 7, 4);
    status->ah_idnr = 4711;
    status.add(MSG_TYPE_EXSTAJ::restartinfo, "");
    status.begin_table(MSG_TYPE_EXSTAJ::outfiles, 2);
    for (const char* name : {"/tmp/a", "/tmp/b"}) {
        status.put('Y');
        status.put_terminated(name);
    }
    std::vector<unsigned char> bytes = status.bytes();
    msg_error error;
    ASSERT_EQ(ToLAN(bytes.data(), bytes.size(), nullptr, 0, nullptr, &error), walk_accepted) << error.subst;
    const message_view view = view_message(bytes.data(), bytes.size());
    const auto read = view_record<MSG_TYPE_EXSTAJ>(view);
    EXPECT_EQ(read.restart_dist + read.restart_len, 0) << "nothing was added";
    EXPECT_EQ(read.outfile_count, 2);
    table_cursor cursor = view_table(view, read.outfile_dist);
    cursor_bytes(&cursor, 1);
    EXPECT_EQ(cursor_text(&cursor, 511), "/tmp/a");
}

TEST(Build, APartWithoutAPositionTellsItsLengthAlone) {
    message_builder<MSG_TYPE_BIN_PUT> put(1, 2);
    put.fill_to(put.size() + 4);
    put.add(MSG_TYPE_BIN_PUT::file_name, "name");
    put.add(MSG_TYPE_BIN_PUT::content, "content");
    EXPECT_EQ(put->file_name_len, 4);
    EXPECT_EQ(put->content_dist, static_cast<int>(sizeof put.record) + 8);
    EXPECT_EQ(put->content_len, 7);
}

}  // namespace
