#include "messages/conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "message_images.h"
#include "messages/head.h"
#include "messages/walk.h"

namespace {

struct outcome {
    int result = 0;
    int code = 0;
    std::string subst;
    std::vector<std::pair<int, std::string>> warnings;
};

outcome convert(image message, bool to_lan = false, const MSGTAB* table = nullptr) {
    msgconv_ctx_t ctx;
    ctx.table = table;
    msg_error error;
    image before = message;
    outcome out;
    // The message stands alone in its memory, so that a sanitizer sees each byte read behind it.
    out.result = to_lan ? ToLAN(message.data(), message.size(), &ctx, 0, nullptr, &error)
                        : ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error);
    out.code = error.code;
    out.subst = error.subst;
    for (uint64_t i = 0; i < error.warning_list.length; ++i) {
        out.warnings.emplace_back(error.warning_list.list[i].code, error.warning_list.list[i].subst);
    }
    free_warning_list(&error);
    EXPECT_TRUE(native_order() == order_big || before == message);
    return out;
}

// ---- messages of the catalogue ----

TEST(Conversion, AcceptsWholeMessagesBothWays) {
    for (const image& message :
         {make_exstaj(), make_exaktj(), make_image("QUITT", "01", 304), make_image("JOB_DEL", "01", 20)}) {
        EXPECT_EQ(convert(message, true).result, walk_accepted) << message.data();
        EXPECT_EQ(convert(message, false).result, walk_accepted) << message.data();
    }
}

struct fault {
    const char* what;
    std::function<image()> make;
    int result;
    int code;  // of the error, or of the only warning
    std::string subst;
};

image changed(image message, size_t offset, uint64_t value, size_t size = 4) {
    set_number(&message, offset, value, size);
    return message;
}

TEST(Conversion, NamesEachFault) {
    const size_t exstaj_size = make_exstaj().size();
    const std::string size_text = std::to_string(exstaj_size);
    const std::vector<fault> faults = {
        {"empty", [] { return image(); }, walk_accepted, 0, ""},
        {"one byte", [] { return image{'<'}; }, walk_failed, 1002409, "16|1|?NULL?|"},
        {"half a head", [] { return make_image("QUITT", "01", 15); }, walk_failed, 1002409, "16|15|?NULL?|"},
        {"XML",
         [] {
             return image{'<', 'x'};
         },
         walk_accepted, 0, ""},
        {"head alone", [] { return make_image("QUITT", "01", 16); }, walk_accepted, 0, ""},
        {"unknown type", [] { return make_image("NOTHING", "01", 304); }, walk_failed, 1002413,
         "NOTHING |walk.cpp:"},
        {"lower case", [] { return make_image("quitt", "01", 304); }, walk_accepted, 0, ""},
        {"longer name", [] { return make_image("TIMESTAM", "01", 304); }, walk_failed, 1002413,
         "TIMESTAM|walk.cpp:"},
        {"integer cut", [] { return make_image("EXSTAJ", "04", 18); }, walk_failed, 1002404,
         "Signed Integer|16|4|2|EXSTAJ.ah_idnr|"},
        {"text cut, then more", [] { return make_image("EXSTAJ", "04", 25); }, walk_failed, 1002409,
         "30|25|EXSTAJ.status|"},
        {"text cut at the end", [] { return make_image("MELD", "01", 100); }, walk_accepted, 0, ""},
        {"nested integer cut", [] { return make_image("EXSTAJ", "04", 91); }, walk_failed, 1002404,
         "Signed Integer|90|2|1|EXSTAJ.TIMESTAMP.mo|"},
        {"length too large", [] { return changed(make_exstaj(), 368, 100000); }, walk_failed, 1002404,
         "Binary Sized|523|100000|38|EXSTAJ.restartinfo|"},
        {"length negative", [] { return changed(make_exstaj(), 368, 0xFFFFFFFF); }, walk_failed, 1002404,
         "Binary Sized|523|-1|38|EXSTAJ.restartinfo|"},
        {"position behind the end", [] { return changed(make_exstaj(), 372, 5000); }, walk_failed, 1002404,
         "Binary Sized|5000|4|0|EXSTAJ.restartinfo|"},
        {"position negative", [] { return changed(make_exstaj(), 372, 0x80000000); }, walk_failed, 1002404,
         "Binary Sized|2147483648|4|0|EXSTAJ.restartinfo|"},
        {"position of a table behind the end", [] { return changed(make_exstaj(), 496, 5000); }, walk_failed,
         1002404, "Struct|5000|0|0|EXSTAJ.statusv|"},
        {"step without end",
         [] {
             image m = make_exstaj();
             m.resize(516);
             return m;
         },
         walk_failed, 1002403, "Ascii String|512|EXSTAJ.STEPLIST.step_name|"},
        {"more files than there are", [] { return changed(make_exstaj(), 504, 3); }, walk_warned, 1005415,
         "EXSTAJ  .outfile_count|3|" + size_text + "|"},
        {"two thousand million files", [] { return changed(make_exstaj(), 504, 0x7FFFFFFF); }, walk_warned,
         1005415, "EXSTAJ  .outfile_count|2147483647|" + size_text + "|"},
        {"negative number of files", [] { return changed(make_exstaj(), 504, 0xFFFFFFFF); }, walk_accepted, 0,
         ""},
        {"displaced table behind the end",
         [] {
             image m = changed(make_exaktj(), 1824, 1);
             return changed(m, 1820, 5000);
         },
         walk_failed, 1002404, "Struct|5000|0|0|EXAKTJ.bintab|"},
        {"displaced table negative",
         [] {
             image m = changed(make_exaktj(), 1816, 1);
             return changed(m, 1812, 0xFFFFFFF0);
         },
         walk_failed, 1002404, "Struct|4294967280|0|0|EXAKTJ.binpaths|"},
    };
    for (const fault& row : faults) {
        outcome out = convert(row.make());
        EXPECT_EQ(out.result, row.result) << row.what;
        if (row.result == walk_warned) {
            ASSERT_EQ(out.warnings.size(), 1U) << row.what;
            EXPECT_EQ(out.warnings[0].first, row.code) << row.what;
            EXPECT_EQ(out.warnings[0].second, row.subst) << row.what;
            continue;
        }
        EXPECT_EQ(out.code, row.code) << row.what;
        EXPECT_EQ(out.subst.substr(0, row.subst.size()), row.subst) << row.what;
    }
}

// Ends of the fixed fields of EXSTAJ and of the pieces behind them: there a message may stop.
TEST(Conversion, StopsAtEveryFieldBoundaryAndOnlyThere) {
    image whole = make_exstaj();
    set_number(&whole, 360, 0);  // without variable data: its counts would tell what is missing
    set_number(&whole, 368, 0);
    set_number(&whole, 500, 0);
    set_number(&whole, 504, 0);
    const std::vector<size_t> boundaries = {16,  20,  30,  31,  32,  36,  40,  44,  48,  52,  56,  64,  88,
                                            90,  92,  94,  96,  98,  100, 104, 359, 360, 364, 368, 372, 376,
                                            378, 380, 382, 384, 386, 388, 392, 396, 496, 500, 504, 508, 512};
    // Inside a text or a filler the next field notices.
    for (size_t length = 16; length <= 512; ++length) {
        image message(whole.begin(), whole.begin() + static_cast<long>(length));
        bool boundary = std::find(boundaries.begin(), boundaries.end(), length) != boundaries.end();
        EXPECT_EQ(convert(message).result == walk_accepted, boundary) << length;
    }
}

TEST(Conversion, EveryTruncationAndMutationEndsCleanly) {
    std::mt19937 random(4711);
    for (const image& whole : {make_exstaj(), make_exaktj()}) {
        for (size_t length = 0; length <= whole.size(); ++length) {
            convert(image(whole.begin(), whole.begin() + static_cast<long>(length)), length % 2 == 0);
        }
        int refused = 0;
        for (int round = 0; round < 20000; ++round) {
            image mutated = whole;
            for (int k = 0; k < 3; ++k) {
                mutated[random() % mutated.size()] = static_cast<unsigned char>(random());
            }
            refused += convert(mutated, round % 2 == 0).result != walk_accepted;
        }
        EXPECT_GT(refused, 100);
    }
}

TEST(Conversion, SkipsFieldsOfHigherVersions) {
    // In version 01 of EXAKTJ the component (200), its stamp (16) and ten numbers (40) are missing in the
    // middle.
    image v1 = make_image("EXAKTJ", "01", 1564 + 4);
    EXPECT_EQ(convert(v1).result, walk_accepted);
    add_bytes(&v1, "script");
    set_number(&v1, 1556, 1568);
    set_number(&v1, 1560, 6);
    EXPECT_EQ(convert(v1).result, walk_accepted);
    set_number(&v1, 1560, 7);
    EXPECT_EQ(convert(v1).subst, "Binary Sized|1568|7|6|EXAKTJ.jcl|");
    // Without a version no field exists.
    EXPECT_EQ(convert(make_image("EXSTAJ", "00", 18)).result, walk_accepted);
}

TEST(Conversion, ReadsTablesInOrderAndDisplacedOnesAtTheirPosition) {
    // Files in front of the variables: told truly by their positions, but against the order of the fields.
    image message = make_image("EXSTAJ", "04", 512);
    set_number(&message, 504, 3);
    set_number(&message, 508, 512);
    add_bytes(&message, std::string_view("Y\0Y\0Y\0", 6));
    set_number(&message, 500, 1);
    set_number(&message, 496, message.size());
    add_bytes(&message, std::string_view("n\0\0C", 4));
    EXPECT_EQ(convert(message).result, walk_warned);

    // Cache paths stand anywhere; the walk comes back to where it was.
    image job = make_exaktj();
    set_number(&job, 1812, job.size());
    set_number(&job, 1816, 1);
    job.resize(job.size() + 1024, 0);
    EXPECT_EQ(convert(job).result, walk_accepted);
    job.resize(job.size() - 1024);
    outcome out = convert(job);
    EXPECT_EQ(out.result, walk_warned);
    ASSERT_EQ(out.warnings.size(), 1U);
    EXPECT_EQ(out.warnings[0].second.substr(0, 26), "EXAKTJ  .binpaths_entries|");
}

TEST(Conversion, RecordsAreFollowedByTheirOwnData) {
    image message = make_image("FTXQUIT", "01", 32);
    set_number(&message, 16, 1);
    set_number(&message, 20, 2);
    for (std::string_view name : {"first", "second.txt"}) {
        size_t start = message.size();
        message.resize(start + 48, 0);
        set_number(&message, start + 16, start + 48);
        set_number(&message, start + 20, name.size());
        add_bytes(&message, name);
    }
    EXPECT_EQ(convert(message).result, walk_accepted);
    EXPECT_EQ(convert(changed(message, 32 + 20, 6)).result, walk_failed);
}

TEST(Conversion, MeldPassesTheChannelUntouched) {
    static std::vector<int> logged;
    logged.clear();
    msgconv_ctx_t ctx;
    ctx.logWrite = [](int number, const char*) { logged.push_back(number); };
    image meld = make_image("MELD", "03", 17);
    EXPECT_EQ(msgconv_ToHost(meld.data(), meld.size(), &ctx), 0);
    EXPECT_EQ(msgconv_ToHost(meld.data(), 15, &ctx), -1);
    EXPECT_EQ(msgconv_ToLan(meld.data(), meld.size(), &ctx), -1);
    image many = changed(make_exstaj(), 504, 3);
    EXPECT_EQ(msgconv_ToHost(many.data(), many.size(), &ctx), -1);
    EXPECT_EQ(logged, (std::vector<int>{1002409, 1002404, 1005415}));
}

// ---- tables made for the test ----

// A one-message catalogue: TEST with the given fields, and INNER.
struct small_table {
    std::vector<msg_el> fields;
    std::vector<msg_el> inner;
    std::vector<msgtab_el> entries;
    MSGTAB table;

    explicit small_table(std::vector<msg_el> with, std::vector<msg_el> nested = {})
        : fields(std::move(with)), inner(std::move(nested)) {
        entries = {{"INNER   ", {inner.size(), inner.data()}, 0},
                   {"TEST    ", {fields.size(), fields.data()}, 0}};
        table = {2, entries.data()};
    }
};

msg_el el(const char* name, int id, int type, int size, int dim = 0, int relation = 0, int version = 1,
          int rule = 0) {
    return {name,
            "INNER",
            nullptr,
            id,
            size,
            dim,
            relation,
            0,
            0,
            static_cast<uint8_t>(type),
            static_cast<uint8_t>(version),
            static_cast<uint8_t>(rule),
            0};
}

TEST(Conversion, FaultsOfTables) {
    struct row {
        const char* what;
        std::vector<msg_el> fields;
        int code;
        std::string subst;
    };
    const std::vector<row> rows = {
        {"reference to a skipped field",
         {el("len", 1, 1, 4, 0, 0, 2), el("text", 2, 4, -1)},
         1002402,
         "2|String Sized|16|TEST.text|"},
        {"reference to nothing",
         {el("len", 1, 1, 4), el("text", 2, 4, -9)},
         1002402,
         "2|String Sized|20|TEST.text|"},
        {"reference to a later field",
         {el("text", 1, 4, -2), el("len", 2, 1, 4)},
         1002402,
         "2|String Sized|16|TEST.text|"},
        {"const", {el("c", 1, 9, 1)}, 1002410, "Const|16|TEST.c|"},
        {"union", {el("u", 1, 10, 1)}, 1002412, "Union|16|TEST.u|"},
        {"unknown type", {el("x", 1, 50, 1)}, 1002412, "Unknown|16|TEST.x|"},
        {"terminated text",
         {el("pad", 1, 98, 1), el("t", 2, 5, 4, 0, 0, 1, rule_terminated)},
         1002403,
         "Ascii String|17|TEST.t|"},
    };
    for (const row& row : rows) {
        small_table table(row.fields);
        image message = make_image("TEST", "01", 16);
        message.resize(40, 'x');
        if (row.fields[0].type == 1) {
            set_number(&message, 16, 2);
        }
        outcome out = convert(message, false, &table.table);
        EXPECT_EQ(out.result, walk_failed) << row.what;
        EXPECT_EQ(out.code, row.code) << row.what;
        EXPECT_EQ(out.subst, row.subst) << row.what;
    }
    small_table unknown({el("s", 1, 8, 0)});
    unknown.fields[0].structure = "NOWHERE";
    EXPECT_EQ(convert(make_image("TEST", "01", 20), false, &unknown.table).subst, "NOWHERE|16|TEST.s|");
    small_table endless({el("s", 1, 8, 0)}, {el("again", 1, 8, 0)});
    EXPECT_EQ(convert(make_image("TEST", "01", 20), false, &endless.table).code, 1002411);
}

TEST(Conversion, WarnsOfBadReferencesAndGoesOn) {
    small_table table({el("a", 1, 1, 4, 0, -7), el("b", 2, 1, 2, -8), el("c", 3, 1, 2, 0, 5)});
    outcome out = convert(make_image("TEST", "01", 24), false, &table.table);
    EXPECT_EQ(out.result, walk_warned);
    ASSERT_EQ(out.warnings.size(), 3U);
    EXPECT_EQ(out.warnings[0], (std::pair<int, std::string>(1002407, "-7|16|TEST.a|")));
    EXPECT_EQ(out.warnings[1], (std::pair<int, std::string>(1002408, "-8|20|TEST.b|")));
    EXPECT_EQ(out.warnings[2], (std::pair<int, std::string>(1002407, "5|22|TEST.c|")));
}

TEST(Conversion, SizesOfEndedTexts) {
    struct row {
        std::string bytes;
        int size;
        size_t taken;
    };
    // The field behind the text shows where the walk went on.
    for (const row& row : std::vector<row>{{std::string("ab\0xx", 5), 4, 3},
                                           {std::string("abc\0x", 5), 4, 4},
                                           {"abcdx", 4, 4},
                                           {std::string("\0xxxx", 5), 4, 1}}) {
        small_table table({el("text", 1, 5, row.size), el("rest", 2, 4, -9)});
        image message = make_image("TEST", "01", 16);
        add_bytes(&message, row.bytes);
        EXPECT_EQ(convert(message, false, &table.table).subst,
                  "2|String Sized|" + std::to_string(16 + row.taken) + "|TEST.rest|");
    }
}

TEST(Conversion, ValuesOfReferencesKeepTheirSign) {
    struct row {
        int size;
        uint64_t value;
        int seen;
    };
    for (const row& row :
         std::vector<row>{{1, 0xFF, -1}, {2, 0xFFFE, -2}, {4, 0xFFFFFFFD, -3}, {8, 0x12FC, -4}}) {
        small_table table({el("len", 1, 2, row.size), el("text", 2, 4, -1)});
        image message = make_image("TEST", "01", 40);
        set_number(&message, 16, row.value, static_cast<size_t>(row.size));
        std::string wanted =
            "String Sized|" + std::to_string(16 + row.size) + "|" + std::to_string(row.seen) + "|";
        EXPECT_EQ(convert(message, false, &table.table).subst.substr(0, wanted.size()), wanted);
    }
}

TEST(Conversion, SwapsForAnotherByteOrder) {
    small_table table({el("len", 1, 1, 4), el("dist", 2, 1, 2), el("raw", 3, 2, 4, 0, 0, 1, rule_no_touch),
                       el("text", 4, 4, -1, 0, -2)});
    msgconv_ctx_t ctx;
    ctx.table = &table.table;
    image wire = make_image("TEST", "01", 26);
    set_number(&wire, 16, 3);
    set_number(&wire, 20, 26, 2);
    set_number(&wire, 22, 0x01020304);
    add_bytes(&wire, "abc");
    image message = wire;
    msg_error error;
    ASSERT_EQ(
        walk(message.data(), message.size(), &ctx, {check_to_host, 0, order_big, nullptr, nullptr}, &error),
        walk_accepted);
    EXPECT_EQ(message[19], 3);
    EXPECT_EQ(message[21], 26);
    EXPECT_EQ(message[22], 4);
    EXPECT_EQ(message[11], 100);
    ASSERT_EQ(
        walk(message.data(), message.size(), &ctx, {check_to_lan, 0, order_big, nullptr, nullptr}, &error),
        walk_accepted);
    EXPECT_EQ(message, wire);
    ASSERT_EQ(walk(message.data(), message.size(), &ctx,
                   {check_to_host, walk_swap_copy, order_big, nullptr, nullptr}, &error),
              walk_accepted);
    EXPECT_EQ(message, wire);
}

// ---- trace ----

std::string traced, lines;

msgconv_ctx_t tracing_context(const std::atomic<char>* level) {
    traced.clear();
    lines.clear();
    msgconv_ctx_t ctx;
    ctx.trcflag = level;
    ctx.trcDump = [](const char*, const void* address, size_t length) {
        traced.append(static_cast<const char*>(address), length);
    };
    ctx.trcWrite = [](const char* line) { lines.append(line).append("\n"); };
    return ctx;
}

// An activation whose passwords can be told from everything else.
image with_passwords() {
    image message = make_exaktj();
    set_text(&message, 1476, "OLDFORM");
    set_text(&message, message.size() - 16, "NEWFORM");
    set_number(&message, 1804, message.size());
    set_number(&message, 1780, 0);
    return message;
}

bool shows(std::string_view text) {
    return traced.find(text) != std::string::npos;
}

TEST(ConversionTrace, ShowsMessagesWithoutTheirPasswords) {
    std::atomic<char> level = '1';
    msgconv_ctx_t ctx = tracing_context(&level);
    image message = with_passwords();
    image before = message;
    msg_error error;
    ASSERT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_TRUE(traced.empty() && lines.empty());

    level = '2';
    for (bool to_lan : {true, false}) {
        traced.clear();
        ASSERT_EQ(to_lan ? ToLAN(message.data(), message.size(), &ctx, 0, nullptr, &error)
                         : ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error),
                  walk_accepted);
        EXPECT_EQ(message, before);
        ASSERT_EQ(traced.size(), message.size());
        EXPECT_TRUE(shows("echo hello") && shows("name1") && shows("/root"));
        EXPECT_FALSE(shows("OLDFORM") || shows("NEWFORM") || shows("value1"));
    }
    EXPECT_EQ(lines.find("jobfile"), std::string::npos);
    level = '4';
    ASSERT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_NE(lines.find("jobfile: String Padded at 220, 255 bytes\n"), std::string::npos);
}

// What cannot be read as a whole may hold a password anywhere behind the fault, or read it as something else.
TEST(ConversionTrace, HidesWhatARefusedMessageMayHold) {
    std::atomic<char> level = '2';
    msgconv_ctx_t ctx = tracing_context(&level);
    image message = with_passwords();
    set_number(&message, 1560, 0x7FFFFFFF);  // jcl_len
    msg_error error;
    ASSERT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_failed);
    EXPECT_TRUE(shows("NIGHTLY.REPORT") && shows("/bin/sh"));
    EXPECT_FALSE(shows("OLDFORM") || shows("NEWFORM") || shows("echo hello"));

    traced.clear();
    message = with_passwords();
    set_number(&message, 1472, 1476);  // the rest field points at the password
    ASSERT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_FALSE(shows("OLDFORM"));
    set_number(&message, 1560, 0x7FFFFFFF);
    traced.clear();
    ASSERT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_failed);
    EXPECT_FALSE(shows("OLDFORM"));
}

}  // namespace
