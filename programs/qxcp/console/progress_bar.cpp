#include "progress_bar.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

constexpr double rate_window = 10;  // seconds
constexpr int shortest_bar = 10;

std::string bar_text(int width, double part) {
    const int done = static_cast<int>(part * width);
    std::string text(static_cast<size_t>(done), '=');
    if (done < width) {
        text += '>';
        text.append(static_cast<size_t>(width - done - 1), ' ');
    }
    return "[" + text + "]";
}

}  // namespace

std::string size_text(int64_t bytes) {
    constexpr const char* units[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    auto number = static_cast<double>(bytes);
    size_t unit = 0;
    // From 999.95 on, one decimal would show 1000.0.
    while (number >= 999.95 && unit + 1 < std::size(units)) {
        number /= 1000;
        ++unit;
    }
    return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", number, units[unit]);
}

std::string duration_text(int64_t seconds) {
    return seconds < 3600 ? fmt::format("{}:{:02}", seconds / 60, seconds % 60)
                          : fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

void progress_take(progress_bar& bar, progress_sample sample) {
    bar.bytes = sample.bytes;
    bar.samples.push_back(sample);
    while (bar.samples.size() > 2 && sample.seconds - bar.samples.front().seconds > rate_window) {
        bar.samples.pop_front();
    }
}

double progress_rate(const progress_bar& bar) {
    if (bar.samples.size() < 2) {
        return 0;
    }
    const double time = bar.samples.back().seconds - bar.samples.front().seconds;
    const auto bytes = static_cast<double>(bar.samples.back().bytes - bar.samples.front().bytes);
    return time > 0 && bytes > 0 ? bytes / time : 0;
}

std::string progress_line(const progress_bar& bar, int width) {
    const double part =
        bar.bytes_total <= 0
            ? 0
            : std::min(1.0, static_cast<double>(bar.bytes) / static_cast<double>(bar.bytes_total));
    const std::string percent = fmt::format("{:3}%", static_cast<int>(part * 100));
    const double rate = progress_rate(bar);
    std::string rest = fmt::format("{} of {}", size_text(bar.bytes), size_text(bar.bytes_total));
    if (rate > 0) {
        rest += fmt::format("  {}/s", size_text(static_cast<int64_t>(rate)));
        const double left = static_cast<double>(std::max<int64_t>(bar.bytes_total - bar.bytes, 0)) / rate;
        // Beyond a hundred hours nobody plans by it.
        rest +=
            left < 360000 ? fmt::format("  {} left", duration_text(static_cast<int64_t>(left + 0.5))) : "";
    }
    rest += fmt::format("  {}/{} files", bar.files, bar.files_total);
    const int room = width - static_cast<int>(percent.size() + rest.size()) - 5;
    std::string line = room >= shortest_bar ? fmt::format("{} {}  {}", percent, bar_text(room, part), rest)
                                            : fmt::format("{}  {}", percent, rest);
    line.resize(std::min(line.size(), static_cast<size_t>(std::max(width, 0))));
    return line;
}
