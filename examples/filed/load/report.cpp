#include "report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

constexpr const char *kKindNames[kKinds] = {"OPEN",   "CLOSE", "READ", "WRITE", "LOCK",
                                            "UNLOCK", "TEST",  "MODE", "INFO",  "HOLDERS"};

uint32_t percentile(std::vector<uint32_t> &sorted, double share) {
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<size_t>(last * share)];
}

}  // namespace

void Report::answered(Kind kind, uint32_t microseconds, const std::string &refusal) {
    requests_++;
    Row &row = rows_[kind];
    row.microseconds.push_back(microseconds);
    if (refusal.empty()) {
        row.granted++;
    } else {
        refusals_++;
        codes_[refusal]++;
    }
}

void Report::print() const {
    (void)printf("%-8s %9s %9s %9s %8s %8s %8s %8s\n", "request", "sent", "granted", "refused",
                 "p50 us", "p90 us", "p99 us", "max us");
    for (int kind = 0; kind < kKinds; kind++) {
        std::vector<uint32_t> times = rows_[static_cast<size_t>(kind)].microseconds;
        if (times.empty()) continue;
        std::sort(times.begin(), times.end());
        const uint64_t granted = rows_[static_cast<size_t>(kind)].granted;
        (void)printf("%-8s %9zu %9" PRIu64 " %9" PRIu64 " %8u %8u %8u %8u\n", kKindNames[kind],
                     times.size(), granted, times.size() - granted, percentile(times, 0.5),
                     percentile(times, 0.9), percentile(times, 0.99), times.back());
    }
    (void)printf("refused:");
    for (const auto &[code, count] : codes_)
        (void)printf("  %s %" PRIu64, code.c_str(), count);
    (void)printf("\nconnections: %" PRIu64 " made, %" PRIu64 " lost, %" PRIu64 " refused\n",
                 connects, lost, refusedConnects);
}
