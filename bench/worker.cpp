#include "worker.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <time.h>

namespace {

enum ExitStatus { kFailed = 1, kNoSuchFeature = 3, kTooFewDescriptors = 4 };  // bench.py knows them

int64_t nanoseconds(clockid_t clock) {
    timespec t{};
    (void)::clock_gettime(clock, &t);
    return t.tv_sec * 1'000'000'000 + t.tv_nsec;
}

constexpr long kWarmUpRepeats = 200;
constexpr int64_t kLongestWarmUpNs = 1'000'000'000;

long repeatsMade = 0;

// Thousands of descriptors are open at a time.
void raiseDescriptorLimit() {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

// Repeats the work for so long on the wall, in steps of a twentieth of it that are found on the
// way: a library may choose its ways by what it sees, and be a thousand times faster from then on.
// Returns the nanoseconds of an operation.
double runRound(const Workload &work, int64_t wallNs) {
    static long repeats = 1;
    const int64_t end = nanoseconds(CLOCK_MONOTONIC) + wallNs;
    long operations = 0;
    (void)stopwatch.take();
    for (int64_t began = 0, ended = 0; ended < end;) {
        began = nanoseconds(CLOCK_MONOTONIC);
        stopwatch.start();
        operations += work.run(repeats);
        repeatsMade += repeats;
        stopwatch.stop();
        ended = nanoseconds(CLOCK_MONOTONIC);
        if (ended - began < wallNs / 20) repeats *= 2;
        if (ended - began > wallNs / 5) repeats = std::max(1L, repeats / 2);
    }
    return static_cast<double>(stopwatch.take()) / static_cast<double>(operations);
}

// A library may do late what it was asked for before, and make up its mind after some passes, which
// take their time on a busy machine.
void warmUp(const Workload &work, int64_t wallNs) {
    const int64_t began = nanoseconds(CLOCK_MONOTONIC);
    int64_t elapsed = 0;
    do {
        (void)runRound(work, wallNs);
        elapsed = nanoseconds(CLOCK_MONOTONIC) - began;
    } while (elapsed < 3 * wallNs || (repeatsMade < kWarmUpRepeats && elapsed < kLongestWarmUpNs));
}

}  // namespace

Stopwatch stopwatch;

Stopwatch::Stopwatch() {
    int64_t least = INT64_MAX;
    for (int i = 0; i < 1000; ++i) {
        const int64_t before = now();
        least = std::min(least, now() - before);
    }
    cost_ = least;
}

int64_t Stopwatch::now() {
    return nanoseconds(CLOCK_THREAD_CPUTIME_ID);
}

int64_t Stopwatch::take() {
    const int64_t sum = sum_;
    sum_ = 0;
    return sum;
}

void check(bool holds, const char *what) {
    if (holds) return;
    std::fprintf(stderr, "%s (errno: %s)\n", what, std::strerror(errno));
    std::_Exit(errno == EMFILE ? kTooFewDescriptors : kFailed);
}

void noSuchFeature() {
    std::_Exit(kNoSuchFeature);
}

// worker WORKLOAD SIZE BUSY MILLISECONDS
int main(int argc, char **argv) {
    check(argc == 5, "usage: worker workload size busy milliseconds");
    const auto work = std::find_if(workloads.begin(), workloads.end(), [&](const Workload &each) {
        return std::strcmp(each.name, argv[1]) == 0;
    });
    check(work != workloads.end(), "no workload of this name");
    raiseDescriptorLimit();
    work->prepare(std::atol(argv[2]), std::atol(argv[3]));
    const int64_t wallNs = std::atol(argv[4]) * 1'000'000;
    warmUp(*work, wallNs);
    std::puts("ready");
    std::fflush(stdout);
    for (char line[8]; std::fgets(line, sizeof line, stdin) != nullptr;) {
        std::printf("%.2f\n", runRound(*work, wallNs));
        std::fflush(stdout);
    }
    std::_Exit(0);
}
