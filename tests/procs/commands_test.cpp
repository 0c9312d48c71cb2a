#include "procs/program.h"

#include <deque>

namespace {

int signalsHandled = 0;

void countSignal(int) {
    ++signalsHandled;
}

struct sigaction actionOf(int sig) {
    struct sigaction action = {};
    EXPECT_EQ(::sigaction(sig, nullptr, &action), 0);
    return action;
}

// Whoever runs the tests may ignore some signals.
class Commands : public LoopTest {
protected:
    Commands() {
        for (const int sig : {SIGINT, SIGQUIT, SIGPIPE})
            ::signal(sig, SIG_DFL);
    }
};

// A command that reads one line and ends with exit status 5. It gets end of file once every process
// that has this pipe has closed it.
struct HeldCommand {
    HeldCommand() { EXPECT_EQ(::fcntl(pipe.fd, F_SETFD, 0), 0); }
    std::string text() const {
        return "read line < /proc/self/fd/" + std::to_string(pipe.fd) + "; exit 5";
    }
    void release() { pipe.closeWriteEnd(); }

    PlainPipe pipe;
};

HeldCommand *endsBeforeTheWait = nullptr;

// The trace hook that ends it: a pass has begun and does not wait yet.
void endBeforeTheWait(const char *, int, const char *, int, const char *format, ...) {
    if (endsBeforeTheWait == nullptr || format[0] != 'e') return;  // "enter"
    std::exchange(endsBeforeTheWait, nullptr)->release();
    siginfo_t info;
    (void)::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
}

// The two ways to wait for a command.
const std::function<int(const std::string &)> kWaits[] = {
    [](const std::string &command) { return ZORsystem(command.c_str()); },
    [](const std::string &command) { return ZORpclose(ZORpopen(command.c_str(), "w")); }};

}  // namespace

TEST_F(Commands, EndWithTheirStatusWord) {
    const ScratchDir dir;
    const std::string stop = "echo $$ > " + dir.path() + "/pid; kill -STOP $$";
    const std::pair<std::string, int> kRows[] = {
        {"true", 0},
        {"exit 3", 0x300},
        {"kill -TERM $$", SIGTERM},
        {"no-such-program", 0x7f00},
        {stop, 0x137f},  // a stop ends the wait
        {"read pid < " + dir.path() + "/pid; kill -KILL $pid", 0}};
    for (const auto &wait : kWaits)
        for (const auto &[command, word] : kRows)
            EXPECT_EQ(wait(command), word) << command;
    EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
}

TEST_F(Commands, ReadAndWriteStreams) {
    FILE *stream = ZORpopen("echo one; echo two; exit 3", "r");
    EXPECT_EQ(readAll(::fileno(stream)), "one\ntwo\n");
    EXPECT_EQ(ZORpclose(stream), 0x300);
    const ScratchDir dir;
    for (const char *mode : {"w", "a"}) {  // all but "r" write
        stream = ZORpopen(("cat > " + dir.path() + "/input; exit 4").c_str(), mode);
        EXPECT_GT(std::fprintf(stream, "to the command"), 0);
        EXPECT_EQ(ZORpclose(stream), 0x400);  // cat has seen the end of its input
        EXPECT_EQ(readFile(dir / "input"), "to the command");
    }
    // If a later command held an earlier stream's end, the earlier one's cat would never see the
    // end.
    FILE *first = ZORpopen("cat > /dev/null", "w"), *second = ZORpopen("cat > /dev/null", "w");
    FILE *third = ZORpopen("yes", "r");
    EXPECT_EQ(ZORpclose(first), 0);
    EXPECT_EQ(ZORpclose(second), 0);
    EXPECT_EQ(ZORpclose(third), SIGPIPE);
    const int before = countOpenDescriptors();
    EXPECT_EQ(ZORpclose(std::fopen("/dev/null", "re")), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(countOpenDescriptors(), before);
}

TEST_F(Commands, StatusOfOneThatEndedLongBeforeIsKeptAndGivenAfterOnePass) {
    FILE *const streams[] = {ZORpopen("exit 6", "r"), ZORpopen("exit 7", "r"),
                             ZORpopen("exit 8", "r")};
    EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
    for (const int i : {1, 0, 2}) {
        TestCall queued;
        registerDelayedCall(&queued);
        EXPECT_EQ(ZORpclose(streams[i]), (6 + i) << 8);
        EXPECT_EQ(queued.calls, 1);
    }
}

// A stream closed behind the library's back leaves its entry: the oldest of a descriptor is the
// one.
TEST_F(Commands, OldestEntryOfADescriptorIsClosedFirst) {
    for (const char *command : {"exit 1", "exit 2"})
        (void)std::fclose(ZORpopen(command, "r"));
    FILE *stream = ZORpopen("exit 3", "r");
    const int fd = ::fileno(stream);
    EXPECT_EQ(ZORpclose(stream), 0x100);
    for (const int word : {0x200, 0x300, -1}) {
        EXPECT_EQ(::dup2(STDERR_FILENO, fd), fd);
        EXPECT_EQ(ZORpclose(::fdopen(fd, "w")), word);
    }
}

// Nested waits do not disturb each other, nor what the outer one has ignored or closes.
TEST_F(Commands, CallbacksMayRunCommandsOfTheirOwn) {
    ASSERT_EQ(catchSignal(SIGINT, countSignal), SIG_DFL);
    HeldCommand held, again;
    int outerFd = -1;
    TestTimer nested(0, [&] {
        const bool inSystem = outerFd == -1;
        EXPECT_EQ(ZORsystem("exit 4"), 0x400);
        EXPECT_EQ(actionOf(SIGINT).sa_handler == SIG_IGN, inSystem);
        EXPECT_EQ(actionOf(SIGQUIT).sa_handler == SIG_IGN, inSystem);
        FILE *stream = ZORpopen("exit 2", "w");
        EXPECT_TRUE(inSystem || ::fileno(stream) == outerFd) << "being closed further out";
        EXPECT_EQ(ZORpclose(stream), 0x200);
        (inSystem ? held : again).release();
    });
    startTimer(&nested);
    EXPECT_EQ(ZORsystem(held.text().c_str()), 0x500);
    EXPECT_EQ(catchSignal(SIGINT, SIG_DFL), countSignal);
    EXPECT_EQ(actionOf(SIGQUIT).sa_handler, SIG_DFL);
    FILE *outer = ZORpopen(again.text().c_str(), "w");
    outerFd = ::fileno(outer);
    startTimer(&nested);
    EXPECT_EQ(ZORpclose(outer), 0x500);
}

TEST_F(Commands, HaveTheDispositionsOfBeforeWhichComeBack) {
    const ScratchDir dir;
    const std::string command = "grep SigIgn /proc/self/status > " + dir.path() + "/status";
    for (const SchedSignalFunc handler : {SIG_DFL, SIG_IGN, SchedSignalFunc{countSignal}}) {
        for (const int sig : {SIGINT, SIGQUIT})
            ASSERT_NE(catchSignal(sig, handler), SIG_ERR);
        EXPECT_EQ(ZORsystem(command.c_str()), 0);
        const uint64_t both = maskOf(SIGINT) | maskOf(SIGQUIT);
        EXPECT_EQ(maskIn(readFile(dir / "status"), "SigIgn:") & both,
                  handler == SIG_IGN ? both : 0);
        for (const int sig : {SIGINT, SIGQUIT})
            EXPECT_EQ(catchSignal(sig, SIG_DFL), handler);
    }
    // A handler that the library does not know stays what it is: a signal handler.
    struct sigaction own = {};
    own.sa_handler = countSignal;
    own.sa_flags = SA_RESTART;
    sigaddset(&own.sa_mask, SIGHUP);
    ASSERT_EQ(::sigaction(SIGQUIT, &own, nullptr), 0);
    ASSERT_EQ(catchSignal(SIGINT, countSignal), SIG_DFL);
    EXPECT_EQ(ZORsystem("kill -INT $PPID"), 0);
    (void)iosched(0);
    EXPECT_EQ(signalsHandled, 0) << "ignored during the wait";
    const struct sigaction after = actionOf(SIGQUIT);
    EXPECT_EQ(after.sa_flags & SA_RESTART, SA_RESTART);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGHUP), 1);
    ::raise(SIGQUIT);
    EXPECT_EQ(signalsHandled, 1) << "at once, not in a later pass";
}

// Under every mask that a program may have: the loop's, none, and one of its own. The commands end
// before their start has returned.
TEST_F(Commands, StartsKeepTheSignalMaskAndMissNoChild) {
    ASSERT_NE(::signal(SIGUSR1, countSignal), SIG_ERR);
    const auto blockUsr1 = [] {
        sigset_t usr1;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &usr1, nullptr), 0);
        ::raise(SIGUSR1);  // waits; not to be let in by a start
    };
    const std::function<void()> kMasks[] = {[] { (void)disableSignals(); },
                                            [] { (void)enableSignals(); }, blockUsr1};
    forksAwaitTheEnd = true;
    for (const auto &setMask : kMasks) {
        setMask();
        const uint64_t mask = presentMask();
        FILE *stream = ZORpopen("true", "r");
        EXPECT_EQ(presentMask(), mask);
        EXPECT_EQ(signalsHandled, 0);
        EXPECT_EQ(ZORpclose(stream), 0);
        setMask();
        EXPECT_EQ(ZORsystem("true"), 0);
    }
}

// The command ends between the look at the flag and the wait of a pass, with signals let in.
TEST_F(Commands, EndIsSeenWhenACallbackHasLetSignalsIn) {
    for (const auto &wait : kWaits) {
        HeldCommand command;
        TestTimer timer(0, [&] {
            (void)enableSignals();
            endsBeforeTheWait = &command;
        });
        startTimer(&timer);
        SetSchedTraceCallback(endBeforeTheWait, SCHED_TRACE_LOOP);
        EXPECT_EQ(wait(command.text()), 0x500);
        SetSchedTraceCallback(nullptr, 0);
        EXPECT_EQ(endsBeforeTheWait, nullptr);
    }
}

TEST_F(Commands, WithoutACommandOrAModeAreRefused) {
    const std::pair<const char *, const char *> kInvalid[] = {
        {"true", "x"}, {"true", "rx+"}, {"true", ""}, {nullptr, "r"}, {"true", nullptr}};
    const int before = countOpenDescriptors();
    for (const auto &[command, mode] : kInvalid) {
        errno = 0;
        EXPECT_EQ(ZORpopen(command, mode), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(ZORsystem(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(countOpenDescriptors(), before);
    EXPECT_FALSE(anyChildRegistered() || hasChildren());
}

// A process forked off never hears of its parent's command, whichever way it was forked and
// wherever the parent was; the parent does.
TEST_F(Commands, EndForTheParentAloneAfterAFork) {
    const pid_t parent = ::getpid();
    pid_t (*const kForks[])() = {ioFork, ::fork};
    for (const auto fork : kForks) {
        HeldCommand held[3];
        std::deque<ReportedChild> children;
        int now = 0;
        TestTimer timer(0, [&] {
            const pid_t pid = fork();
            held[now++].release();
            if (pid != 0) children.emplace_back(pid);
        });
        const auto expectStatus = [&](int status) {
            if (::getpid() != parent)
                ::_exit(status == -1 && errno == ECHILD && !anyChildRegistered() ? 0 : 1);
            EXPECT_EQ(status, 0x500);
            EXPECT_EQ(children.back().await(), 0) << now;
        };
        startTimer(&timer);
        expectStatus(ZORsystem(held[0].text().c_str()));
        FILE *stream = ZORpopen(held[1].text().c_str(), "w");
        startTimer(&timer);
        expectStatus(ZORpclose(stream));
        stream = ZORpopen(held[2].text().c_str(), "w");
        timer.onFire();  // neither in the one nor in the other
        expectStatus(ZORpclose(stream));
    }
}
