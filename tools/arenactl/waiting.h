// Time, for those who look again and again.
#pragma once

#include <cstdint>
#include <ctime>

inline int64_t nowMs() {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

inline void restOneMs() {
    const timespec rest{0, 1000000};
    (void)::nanosleep(&rest, nullptr);
}
