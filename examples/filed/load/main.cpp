// filed-load: many clients on few files, and a witness that would see two conflicting grants.
//
// A client program of the loop: every connection is a descriptor callback, pace and progress are
// timers. The exit status is 0 when nothing was granted that should not have been, no connection
// attempt was refused and every reply made sense.

#include "client.h"

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iosched/sched.h>
#include <iosched/util.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kUsage[] =
    "usage: filed-load [-p PORT] [-c CLIENTS] [-f FILES] [-t SECONDS] [-s SEED] [-k | --kill]\n"
    "  -p PORT     where filed listens on 127.0.0.1 (7070)\n"
    "  -c CLIENTS  connections at a time (32)\n"
    "  -f FILES    files that they share (12)\n"
    "  -t SECONDS  how long (10)\n"
    "  -s SEED     of the random requests (1)\n"
    "  -k, --kill  have a worker killed every 700 ms meanwhile\n";

constexpr int64_t kKillMs = 700;
constexpr int64_t kFinishMs = 5000;  // to let the last replies come

struct {
    int clients = 32;
    int seconds = 10;
    bool kill = false;
} options;

Load load;
std::vector<std::unique_ptr<Client>> clients;
int64_t startedAt;
bool onTerminal;
bool overdue;
SchedTimer progress, killing, ending;

[[noreturn]] void usage(int status) {
    (void)fputs(kUsage, status == 0 ? stdout : stderr);
    exit(status);
}

int number(const char *text) {
    char *end = nullptr;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 1 || value > 65535) usage(1);
    return static_cast<int>(value);
}

void parseOptions(int argc, char **argv) {
    // '-' as an option with an argument is how "--kill" reads to a parser of single letters.
    for (int option; (option = ZORgetopt(argc, argv, "p:c:f:t:s:kh-:")) != -1;) {
        switch (option) {
        case 'p':
            load.port = number(ZORoptarg);
            break;
        case 'c':
            options.clients = number(ZORoptarg);
            break;
        case 'f':
            load.files = number(ZORoptarg);
            break;
        case 't':
            options.seconds = number(ZORoptarg);
            break;
        case 's':
            load.random.seed(static_cast<unsigned>(number(ZORoptarg)));
            break;
        case 'k':
            options.kill = true;
            break;
        case 'h':
            usage(0);
        case '-':
            if (strcmp(ZORoptarg, "kill") != 0) usage(1);
            options.kill = true;
            break;
        default:
            usage(1);
        }
    }
    if (ZORoptind < argc) usage(1);
}

void showProgress(SchedTimer *timer) {
    const Report &report = load.report;
    const auto ms = getAbsMonoTime() - startedAt;
    (void)printf("%s%5.1f s  %" PRIu64 " requests  %" PRIu64 "/s  %" PRIu64
                 " refused  %d connected  %" PRIu64 " lost  %" PRIu64 " kills  %" PRIu64
                 " conflicting grants%s",
                 onTerminal ? "\r" : "", static_cast<double>(ms) / 1000, report.requests(),
                 report.requests() * 1000 / static_cast<uint64_t>(ms + 1), report.refusals(),
                 load.connected, report.lost, report.killsAsked, load.witness->violations(),
                 onTerminal ? "\033[K" : "\n");
    (void)fflush(stdout);
    startTimer(timer);
}

// The server's master does the killing, between two operations on the lock table.
void killOne(SchedTimer *timer) {
    if (load.masterPid > 1 && kill(load.masterPid, SIGUSR2) == 0) load.report.killsAsked++;
    startTimer(timer);
}

void endLoad(SchedTimer *timer) {
    if (load.finishing) {
        overdue = true;
        return;
    }
    load.finishing = true;
    (void)stopTimer(&killing);
    for (const auto &client : clients)
        client->finish();
    timer->interval = kFinishMs;
    startTimer(timer);
}

void repeat(SchedTimer &timer, SchedTimerFunc func, int64_t ms) {
    timer.func = func;
    timer.interval = ms;
    startTimer(&timer);
}

int summarize() {
    const Report &report = load.report;
    const Witness &witness = *load.witness;
    if (onTerminal) (void)printf("\n");
    report.print();
    (void)printf("kills asked for: %" PRIu64 "\n", report.killsAsked);
    (void)printf("conflicting grants: %" PRIu64 " (%" PRIu64 " pairs compared)\n",
                 witness.violations(), witness.checked());
    if (witness.violations() > 0) (void)printf("first: %s\n", witness.firstViolation().c_str());
    if (report.badReplies > 0)
        (void)printf("replies that make no sense: %" PRIu64 "\n", report.badReplies);
    if (overdue) (void)printf("the last replies did not come\n");
    const bool good = witness.violations() == 0 && report.refusedConnects == 0 &&
                      report.badReplies == 0 && report.requests() > 0 && !overdue;
    return good ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    parseOptions(argc, argv);
    onTerminal = isatty(STDOUT_FILENO) == 1;
    char message[128];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0) {
        (void)fprintf(stderr, "filed-load: %s\n", message);
        return 2;
    }
    Witness witness(load.files,
                    [](int client) { return clients[static_cast<size_t>(client)]->stillHolds(); });
    load.witness = &witness;
    startedAt = getAbsMonoTime();
    for (int i = 0; i < options.clients; i++) {
        clients.push_back(std::make_unique<Client>(load, i));
        clients.back()->connect();
    }
    repeat(progress, showProgress, onTerminal ? 200 : 1000);
    if (options.kill) repeat(killing, killOne, kKillMs);
    repeat(ending, endLoad, int64_t{1000} * options.seconds);
    while (!overdue && !(load.finishing && load.connected == 0))
        (void)iosched(-1);
    clients.clear();
    return summarize();
}
