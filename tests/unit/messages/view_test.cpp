#include "messages/view.h"

#include <gtest/gtest.h>

#include "message_images.h"
#include "messages/records_job.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"

namespace {

TEST(View, ReadsWhatCame) {
    image message = make_exaktj();
    message_view view = view_message(message.data(), message.size());
    auto job = view_record<MSG_TYPE_EXAKTJ>(view);
    EXPECT_EQ(get_text(job.header.msg_typ), "EXAKTJ");
    EXPECT_EQ(job.header.i2Mandant, 100);
    EXPECT_EQ(job.ah_idnr, 4711);
    EXPECT_EQ(get_text(job.name), "NIGHTLY.REPORT");
    EXPECT_EQ(view_text(view, job.jcl_dist, job.jcl_len), "#!/bin/sh\necho hello\nexit 0\n");
    table_cursor cursor = view_table(view, job.valuetab_dist);
    for (std::string_view wanted : {"name1", "value1", "N", "name2", "value2", "N"}) {
        EXPECT_EQ(cursor_text(&cursor, 1024), wanted);
    }
    EXPECT_FALSE(cursor.failed);
}

TEST(View, AbsentFieldsAreZeroOrBlank) {
    image message = make_exaktj();
    for (size_t length = 0; length < 1836; ++length) {
        image cut(message.begin(), message.begin() + static_cast<long>(length));
        message_view view = view_message(cut.data(), cut.size());
        auto job = view_record<MSG_TYPE_EXAKTJ>(view);
        EXPECT_EQ(job.ah_idnr, length >= 20 ? 4711 : 0);
        EXPECT_EQ(
            get_text(job.logininfo),
            std::string_view("operator").substr(0, length < 1244 ? 0 : std::min<size_t>(length - 1244, 8)));
        EXPECT_EQ(job.jcl_len, length >= 1564 ? 28 : 0);
        EXPECT_EQ(job.pwd_len, 0);
        EXPECT_EQ(view_text(view, job.jcl_dist, job.jcl_len), "");
        EXPECT_EQ(job.logininfo[199], ' ');
    }
}

TEST(View, FieldsBehindAnAbsentOneAreFoundWhereTheVersionHasThem) {
    // Version 01 of TRCSET has mem_trace and force_trace directly behind the fixed part of 104 bytes.
    image message = make_image("TRCSET", "01", 104);
    set_text(&message, 48, "0123456789012345");
    add_bytes(&message, "YN");
    auto trace = view_record<MSG_TYPE_TRCSET>(view_message(message.data(), message.size()));
    EXPECT_EQ(std::string_view(trace.flags, 16), "0123456789012345");
    EXPECT_EQ(trace.max_size, 0);
    EXPECT_EQ(trace.trigger_type, ' ');
    EXPECT_EQ(trace.mem_trace, 'Y');
    EXPECT_EQ(trace.dump_memory, ' ');
    EXPECT_EQ(trace.force_trace, 'N');

    // A record of a version that has not come yet is as empty as its fields.
    image job = make_image("EXAKTJ", "01", 1564);
    add_number(&job, 9, 4);
    auto old = view_record<MSG_TYPE_EXAKTJ>(view_message(job.data(), job.size()));
    EXPECT_EQ(old.component[0], ' ');
    EXPECT_EQ(old.compTimeStamp.jjjj, 0);
    EXPECT_EQ(old.conntab_entries, 9);
}

TEST(View, VariableDataOutsideDoesNotExist) {
    image message = make_image("QUITT", "01", 320);
    message_view view = view_message(message.data(), message.size());
    struct row {
        int64_t dist, len;
        size_t size;
    };
    const row cases[] = {{16, 304, 304}, {304, 16, 16},     {304, 17, 0},        {320, 0, 0},
                         {320, 1, 0},    {15, 2, 0},        {0, 16, 0},          {-1, 5, 0},
                         {304, -1, 0},   {INT32_MAX, 1, 0}, {304, INT32_MAX, 0}, {INT64_MAX, INT64_MAX, 0}};
    for (const row& row : cases) {
        EXPECT_EQ(view_data(view, row.dist, row.len).size(), row.size) << row.dist << " " << row.len;
    }

    message[319] = 'x';
    table_cursor cursor = view_table(view, 317);
    EXPECT_EQ(cursor_text(&cursor, 10), "");
    EXPECT_EQ(cursor_text(&cursor, 10), "");
    EXPECT_FALSE(cursor.failed);
    EXPECT_EQ(cursor_text(&cursor, 10), "");
    EXPECT_TRUE(cursor.failed);
    EXPECT_TRUE(cursor_bytes(&cursor, 1).empty());
    EXPECT_TRUE(view_table(view, 321).failed);
    EXPECT_TRUE(view_table(view, -1).failed);
}

TEST(View, NewMessagesAreBlank) {
    auto message = new_message<MSG_TYPE_EXSTAJ>(100, 5, 4);
    EXPECT_EQ(std::string_view(message.header.msg_typ, 10), "EXSTAJ  04");
    EXPECT_EQ(message.progname[254], ' ');
    EXPECT_EQ(message.infotext_alt.infotext[23], ' ');
    EXPECT_EQ(message.endzeit.jjjj, 0);
    EXPECT_EQ(message.filler[0], 0);
}

TEST(Head, VersionAsNumber) {
    struct row {
        const char* text;
        int version;
    };
    for (const row& row :
         {row{"01", 1}, {"04", 4}, {"12", 12}, {"  ", 0}, {" 3", 3}, {"3 ", 3}, {"x1", 0}, {"-1", -1}}) {
        QX_HEADM head{};
        memcpy(head.version, row.text, 2);
        EXPECT_EQ(message_version(&head), row.version) << row.text;
    }
    QX_HEADM head;
    CreateQxHeadm(&head, "QUITT", 1, 2);
    EXPECT_EQ(std::string_view(head.msg_typ, 10), "QUITT   01");
    EXPECT_TRUE(message_type_is(&head, sizeof head, "QUITT"));
    EXPECT_FALSE(message_type_is(&head, 7, "QUITT"));
}

TEST(Timestamp, GoesBothWays) {
    MSG_TYPE_TIMESTAMP stamp = timestamp_utc(1709210096, 5);  // 29 February 2024, 12:34:56 UTC
    EXPECT_EQ(stamp.jjjj, 2024);
    EXPECT_EQ(stamp.mo, 2);
    EXPECT_EQ(stamp.tt, 29);
    EXPECT_EQ(stamp.hh, 12);
    EXPECT_EQ(stamp.mi, 34);
    EXPECT_EQ(stamp.ss, 56);
    EXPECT_EQ(stamp.ns, 5);
    EXPECT_EQ(timestamp_seconds(stamp), 1709210096);
    EXPECT_EQ(timestamp_seconds(MSG_TYPE_TIMESTAMP{}), 0);
}

}  // namespace
