// File times (100-nanosecond intervals since 1601-01-01) and Unix times.
//
// All sums are unsigned, so that times before 1970 and times outside either format's range wrap
// instead of being undefined.

#include "iosched/util.h"

namespace {

constexpr uint64_t kIntervalsPerSecond = 10'000'000;
constexpr uint64_t kSecondsFrom1601To1970 = 11'644'473'600;

}  // namespace

int64_t win2unixtime(uint64_t fileTime) {
    return static_cast<int64_t>(fileTime / kIntervalsPerSecond - kSecondsFrom1601To1970);
}

uint64_t unix2wintime(int64_t seconds) {
    return (static_cast<uint64_t>(seconds) + kSecondsFrom1601To1970) * kIntervalsPerSecond;
}
