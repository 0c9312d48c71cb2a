#include "soak/soak.h"

#include "iosched/sched.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <malloc.h>
#include <sys/wait.h>

namespace {

constexpr int kWarmUpRounds = 10;

int percent = 100;  // of the rounds that an item has

struct Usage {
    int descriptors;
    size_t heapBytes;
    bool children;  // zombies or living ones
};

Usage usageNow() {
    Usage usage{};
    DIR *dir = ::opendir("/proc/self/fd");
    while (::readdir(dir) != nullptr)
        ++usage.descriptors;
    ::closedir(dir);
    usage.descriptors -= 3;  // ".", ".." and the directory
    usage.heapBytes = ::mallinfo2().uordblks;
    siginfo_t info;
    usage.children = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
    return usage;
}

}  // namespace

void soakFailed(const char *what, int got) {
    std::printf("%s: unexpected result %d\n", what, got);
    std::exit(1);
}

bool soak(const char *name, int rounds, void (*playRound)(int round)) {
    for (int round = 0; round < kWarmUpRounds; ++round)
        playRound(round);
    rounds = std::max(rounds / 100 * percent, 1);
    const Usage before = usageNow();
    const int64_t start = getAbsMonoTime();
    for (int round = 0; round < rounds; ++round)
        playRound(round);
    const auto seconds = static_cast<double>(getAbsMonoTime() - start) / 1000;
    const Usage after = usageNow();
    const bool clean = after.descriptors == before.descriptors &&
                       after.heapBytes == before.heapBytes && !after.children;
    std::printf("%-32s %8d in %6.1f s: descriptors %d -> %d, heap %zu -> %zu, %s: %s\n", name,
                rounds, seconds, before.descriptors, after.descriptors, before.heapBytes,
                after.heapBytes, after.children ? "children left" : "no child left",
                clean ? "ok" : "LEAK");
    return clean;
}

int main(int argc, char **argv) {
    char msg[128];
    if (argc > 1) percent = std::atoi(argv[1]);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, msg, sizeof msg) != 0) {
        std::printf("%s\n", msg);
        return 1;
    }
    bool clean = soakSched();
    clean = soakProcsAio() && clean;
    return soakStorms() && clean ? 0 : 1;
}
