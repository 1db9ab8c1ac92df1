#include "channels/line_budget.h"

#include <algorithm>

bool line_budget::take(time_t now, int* dropped_before) {
    const std::lock_guard<std::mutex> guard(lock);
    *dropped_before = 0;
    if (now > last) {
        const time_t back = std::min<time_t>((now - last) * per_second, most);
        left = std::min(most, left + static_cast<int>(back));
        last = now;
    }
    if (left == 0) {
        ++dropped;
        return false;
    }
    --left;
    *dropped_before = dropped;
    dropped = 0;
    return true;
}
