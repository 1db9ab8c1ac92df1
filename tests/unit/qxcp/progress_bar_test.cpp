#include "qxcp/console/progress_bar.h"

#include <gtest/gtest.h>

TEST(progress_bar, says_sizes_and_times_as_people_read_them) {
    struct {
        int64_t bytes;
        const char* text;
    } const sizes[] = {{0, "0 B"},         {999, "999 B"},         {1000, "1.0 kB"},     {999949, "999.9 kB"},
                       {999950, "1.0 MB"}, {5368709120, "5.4 GB"}, {INT64_MAX, "9.2 EB"}};
    for (const auto& row : sizes) {
        EXPECT_EQ(size_text(row.bytes), row.text);
    }
    EXPECT_EQ(duration_text(7), "0:07");
    EXPECT_EQ(duration_text(3599), "59:59");
    EXPECT_EQ(duration_text(3723), "1:02:03");
}

TEST(progress_bar, counts_the_rate_of_the_last_seconds_alone) {
    progress_bar bar;
    bar.bytes_total = 1000;
    progress_take(bar, {0, 0});
    EXPECT_EQ(progress_rate(bar), 0);
    for (int second = 1; second <= 30; ++second) {
        progress_take(bar, {static_cast<double>(second), second <= 15 ? second * 100 : 1500 + second});
    }
    EXPECT_NEAR(progress_rate(bar), 1, 0.01);
    progress_take(bar, {31, 10});  // a file begins anew: the figures may fall
    EXPECT_EQ(progress_rate(bar), 0);
}

TEST(progress_bar, fits_every_terminal) {
    progress_bar bar{500, 1000, 1, 3, {}};
    progress_take(bar, {0, 0});
    progress_take(bar, {5, 500});
    EXPECT_EQ(progress_line(bar, 79),
              " 50% [============>           ]  500 B of 1.0 kB  100 B/s  0:05 left  1/3 files");
    EXPECT_EQ(progress_line(bar, 55), " 50%  500 B of 1.0 kB  100 B/s  0:05 left  1/3 files");
    for (int width = 0; width < 120; ++width) {
        EXPECT_LE(progress_line(bar, width).size(), static_cast<size_t>(width));
    }
    // Neither an unknown size nor one that grew while it was sent leaves the bar.
    EXPECT_NE(progress_line({10, 0, 0, 0, {}}, 79).find("  0%"), std::string::npos);
    EXPECT_NE(progress_line({20, 10, 0, 0, {}}, 79).find("100%"), std::string::npos);
}
