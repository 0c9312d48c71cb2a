// One call of the library fails: the n-th that a scenario makes, once or from then on.
#pragma once

#include <cstddef>
#include <sys/types.h>

// How often a call may be tried again although it fails each time.
constexpr long kMostRepeats = 400;  // pseudo-terminals have 352 names

// Shared with the processes that a scenario forks.
struct Fault {
    bool armed;
    bool inChildren;  // only calls of forked processes count, else only those of `owner`
    bool forever;     // every later call of the same name fails too
    bool isDeadly;    // the call does not fail: its process is killed there
    pid_t owner;
    pid_t driver;     // the process that runs all the scenarios, and only waits
    char spared[64];  // names of calls that are left alone
    int instead;      // another error than the call's usual one, 0 = that
    long countdown;   // calls that are still good
    char name[32];    // the call that failed, "" = none so far
    int error;        // of its first failure
    int lastError;    // another one from the second failure on
    long repeats;     // calls of that name since
    // Where in the program the counted calls came from.
    size_t siteCount;
    const void *sites[2048];
};
extern Fault *fault;

// Blocks of memory and mappings that are in use, as far as malloc and mmap were called by name.
extern long liveBlocks, liveMappings;
