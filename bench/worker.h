// What every benchmark program offers the front, and what its workloads are made of.
//
// A worker measures one workload at one size: it prepares, warms up, and answers each line on its
// standard input with a round, one number for the nanoseconds of each operation. bench.py asks the
// workers of all libraries in turn, so that whatever disturbs the machine disturbs all of them.
//
// Rounds are counted in the thread's own processor time: time that other programs take away does
// not count, nor does sleeping.
#pragma once

#include <cstdint>
#include <span>

class Stopwatch {
public:
    Stopwatch();
    void start() { began_ = now(); }
    void stop() { sum_ += now() - began_ - cost_; }
    // Nanoseconds between all starts and stops since the last call.
    int64_t take();

private:
    static int64_t now();
    int64_t began_ = 0, sum_ = 0;
    int64_t cost_ = 0;  // nanoseconds that start() and stop() themselves add
};

struct Workload {
    const char *name;
    // Makes what the rounds need. What the two numbers mean is the workload's own affair.
    void (*prepare)(long size, long busy);
    // Repeats the work, with the stopwatch running when it is called and when it returns. Returns
    // how many operations that were.
    long (*run)(long repeats);
};

extern const std::span<const Workload> workloads;  // defined by each program
extern Stopwatch stopwatch;

// Ends the worker, and with it the whole run, if something is not as it must be.
void check(bool holds, const char *what);

// Ends the worker with the status that stands for "this library has no such feature".
[[noreturn]] void noSuchFeature();
