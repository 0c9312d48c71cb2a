// filed-load: many clients on few files, and a witness that would see two conflicting grants.
//
// A client program of the loop: every connection is a descriptor callback, pace and progress are
// timers. The exit status is 0 when nothing was granted that should not have been, no connection
// attempt was refused and every reply made sense.

#include "client.h"
#include "common/options.h"
#include "killer.h"

#include <algorithm>
#include <cerrno>
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
    "usage: filed-load [options]\n"
    "  -p PORT     where filed listens on 127.0.0.1 (7070)\n"
    "  -c CLIENTS  connections at a time (32)\n"
    "  -f FILES    files that they share (12)\n"
    "  -t SECONDS  how long (10)\n"
    "  -s SEED     of the random requests (1)\n"
    "  -k, --kill  have the server kill a worker every 700 ms, outside its mutexes\n"
    "  --kill9     kill workers raw at random moments, half of them inside a mutex: needs -a\n"
    "  -a FILE     the server's arena, to see who holds the mutex\n"
    "  -n KILLS    end after so many\n"
    "  --help, --version\n";

constexpr int64_t kKillMs = 700;
constexpr int64_t kHealUs = 5'000'000;  // the longest that a kill may hold everybody up
constexpr uint32_t kRawKillMs = 150, kRawKillSpreadMs = 500;
constexpr int64_t kFinishMs = 5000;  // to let the last replies come

struct {
    int clients = 32;
    int seconds = 10;
    bool kill = false, killRaw = false;
    uint64_t maxKills = UINT64_MAX;
    const char *arena = nullptr;
} options;

Load load;
Killer killer;
std::vector<std::unique_ptr<Client>> clients;
int64_t startedAt;
bool onTerminal;
bool overdue;
SchedTimer progress, killing, ending;
uint64_t rawKillsAsked, rawKills, rawKillsInside;

constexpr Options parser("filed-load", kUsage);

void parseWord(const char *word) {
    if (strcmp(word, "kill9") == 0)
        options.killRaw = true;
    else if (strcmp(word, "kill") == 0)
        options.kill = true;
    else
        parser.commonWord(word);
}

void parseOptions(int argc, char **argv) {
    for (int option; (option = ZORgetopt(argc, argv, "p:c:f:t:s:a:n:kh-:")) != -1;) {
        const auto number = [&] { return parser.number(option, ZORoptarg, 1, 65535); };
        switch (option) {
        case 'p':
            load.port = number();
            break;
        case 'c':
            options.clients = number();
            break;
        case 'f':
            load.files = number();
            break;
        case 't':
            options.seconds = number();
            break;
        case 's':
            load.random.seed(static_cast<unsigned>(number()));
            break;
        case 'a':
            options.arena = ZORoptarg;
            break;
        case 'n':
            options.maxKills = static_cast<uint64_t>(number());
            break;
        case 'k':
            options.kill = true;
            break;
        case 'h':
            parser.help();
        case '-':
            parseWord(ZORoptarg);
            break;
        default:
            exit(1);  // the parser has said why
        }
    }
    if (ZORoptind < argc) parser.refuse("what is \"%s\"?", argv[ZORoptind]);
    if (options.killRaw && !options.arena) parser.refuse("--kill9 needs -a");
}

void showProgress(SchedTimer *timer) {
    const Report &report = load.report;
    const auto ms = getAbsMonoTime() - startedAt;
    (void)printf("%s%5.1f s  %" PRIu64 " requests  %" PRIu64 "/s  %" PRIu64
                 " refused  %d connected  %" PRIu64 " lost  %" PRIu64 " kills  %" PRIu64
                 " conflicting grants%s",
                 onTerminal ? "\r" : "", static_cast<double>(ms) / 1000, report.requests(),
                 report.requests() * 1000 / static_cast<uint64_t>(ms + 1), report.refusals(),
                 load.connected, report.lost, report.killsAsked + rawKills,
                 load.witness->violations(), onTerminal ? "\033[K" : "\n");
    (void)fflush(stdout);
    startTimer(timer);
}

// The server's master does the killing, between two operations on the lock table.
void killOne(SchedTimer *timer) {
    if (load.masterPid > 1 && kill(load.masterPid, SIGUSR2) == 0) load.report.killsAsked++;
    startTimer(timer);
}

// One at a time: the next one only when somebody has been granted something again.
void killOneRaw(SchedTimer *timer) {
    if (rawKills >= options.maxKills) {
        ending.interval = 0;
        (void)restartTimer(&ending);
        return;
    }
    if (load.killedUs == 0) return killer.kill(++rawKillsAsked % 2 == 0);
    startTimer(timer);
}

void onKilled(const Killed &killed) {
    if (killed.done) {
        rawKills++;
        rawKillsInside += killed.inside ? 1 : 0;
        load.killedUs = killed.us;
    }
    if (load.finishing) return;
    killing.interval = kRawKillMs + static_cast<uint32_t>(load.random()) % kRawKillSpreadMs;
    startTimer(&killing);
}

void endLoad(SchedTimer *timer) {
    if (load.finishing) {
        overdue = true;
        return;
    }
    load.finishing = true;
    (void)stopTimer(&killing);
    if (load.killedUs != 0)
        load.worstGrantUs = std::max(load.worstGrantUs, nowUs() - load.killedUs);
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
    if (options.killRaw)
        (void)printf(
            "raw kills: %" PRIu64 ", %" PRIu64
            " of them inside the table's mutex; longest wait for a grant after one: %.1f ms\n",
            rawKills, rawKillsInside, static_cast<double>(load.worstGrantUs) / 1000);
    else
        (void)printf("kills asked for: %" PRIu64 "\n", report.killsAsked);
    (void)printf("conflicting grants: %" PRIu64 " (%" PRIu64 " pairs compared)\n",
                 witness.violations(), witness.checked());
    if (witness.violations() > 0) (void)printf("first: %s\n", witness.firstViolation().c_str());
    if (report.badReplies > 0)
        (void)printf("replies that make no sense: %" PRIu64 "\n", report.badReplies);
    if (overdue) (void)printf("the last replies did not come\n");
    const bool good = witness.violations() == 0 && report.refusedConnects == 0 &&
                      report.badReplies == 0 && report.requests() > 0 &&
                      load.worstGrantUs < kHealUs && !overdue;
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
    if (options.killRaw && !killer.start(options.arena, onKilled)) {
        (void)fprintf(stderr, "filed-load: %s: %s\n", options.arena,
                      errno != 0 ? strerror(errno) : "not the arena of a server");
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
    if (options.killRaw) repeat(killing, killOneRaw, kRawKillMs);
    repeat(ending, endLoad, int64_t{1000} * options.seconds);
    while (!overdue && !(load.finishing && load.sockets == 0))
        (void)iosched(-1);
    clients.clear();
    return summarize();
}
