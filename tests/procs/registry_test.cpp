#include "procs/program.h"

#include <deque>
#include <malloc.h>
#include <sstream>

extern "C" pid_t __real_wait3(int *status, int options, rusage *usage),
    __wrap_wait3(int *status, int options, rusage *usage);

namespace {

int dumpedCore = 0;  // whose end is reported next; machines that dump cores are few

// A registered child process and what was reported of it.
struct TestChild {
    explicit TestChild(void (*body)()) : pid(::fork()) {
        if (pid == 0) body(), ::_exit(0);
        add();
    }
    void add() { EXPECT_EQ(registerChild(pid, &TestChild::done, this), 0); }
    int await(int count = 1) {  // its status word then
        EXPECT_TRUE(runUntil([&] { return reports == count; }));
        return buildStatus(&status);
    }
    static void done(void *arg, const ChildStatus *status) {
        auto *child = static_cast<TestChild *>(arg);
        ++child->reports;
        child->status = *status;
        if (child->onDone) child->onDone();
    }

    pid_t pid;
    int reports = 0;
    ChildStatus status{};
    std::function<void()> onDone;
};

// Plays a script on the registry. Its words:
//     a1  register callback a (a to z) for child 1      -1  remove the registration of child 1
//     A1  the library itself registers child 1          *   fork: the child's registry is emptied
//     x1  child 1 is reaped, having ended; each end has a code of its own, counted from 1
//     s1  child 1 is reaped, having stopped             .   run the callbacks
// Child 9 is this process's child, alive; the others are not its children. The first call of
// callback a plays a script of its own. What is logged: calls as "a1:CODE" or "a1:s", removals as
// "no" where there is nothing to remove.
class Registry {
public:
    explicit Registry(const char *onFirstCall) : onFirstCall_(onFirstCall) {}
    ~Registry() {
        forgetAllChildren();
        if (living_ <= 0) return;
        (void)::kill(living_, SIGKILL);
        (void)::waitpid(living_, nullptr, 0);
    }
    std::string play(const std::string &script) {
        std::istringstream words(script);
        for (std::string word; words >> word;)
            step(word[0], word.size() > 1 ? word[1] : '0');
        return log_;
    }

private:
    struct Call {
        Registry *registry;
        char name, child;
    };
    int pidOf(char child) {
        if (child != '9') return 1 << 24 | child;  // above all process ids
        if (living_ == -1 && (living_ = ::fork()) == 0) (void)::poll(nullptr, 0, -1), ::_exit(0);
        return living_;
    }
    void step(char verb, char child) {
        const int pid = pidOf(child);
        const ChildStatus status{pid, 0, 0, verb == 's', verb == 'x' ? ++ends_ : 0, {}};
        if (verb == '.')
            (void)callRegisteredChildFuncs();
        else if (verb == '*')
            forgetAllChildren();
        else if (verb == '-')
            log_ += registerChild(pid, nullptr, nullptr) == 0 ? "" : errno == ESRCH ? "no " : "?";
        else if (verb == 'x' || verb == 's')
            schedChildDied(pid, &status);
        else
            add(verb, child, pid);
    }
    void add(char name, char child, int pid) {
        calls_.push_back({this, name, child});
        if (name >= 'a') {
            EXPECT_EQ(registerChild(pid, called, &calls_.back()), 0);
        } else {
            ASSERT_TRUE(reserveOwnChild());
            listOwnChild(&own_.emplace_back(), pid, called, &calls_.back());
        }
    }
    static void called(void *arg, const ChildStatus *status) {
        const Call call = *static_cast<Call *>(arg);
        Registry &self = *call.registry;
        self.log_ += {call.name, call.child, ':'};
        self.log_ += (status->stopped != 0 ? "s" : std::to_string(status->exitCode)) + " ";
        if (call.name == 'a') (void)self.play(std::exchange(self.onFirstCall_, ""));
    }

    std::string onFirstCall_, log_;
    int ends_ = 0;
    pid_t living_ = -1;
    std::deque<Call> calls_;
    std::deque<ChildRecord> own_;
};

using Children = LoopTest;

}  // namespace

pid_t __wrap_wait3(int *status, int options, rusage *usage) {
    if (dumpedCore == 0) return __real_wait3(status, options, usage);
    *status = SIGSEGV | 0x80;
    return std::exchange(dumpedCore, 0);
}

TEST(ChildRegistry, TellsWhomItShouldTell) {
    const struct {
        const char *script, *onFirstCall, *log;
    } kRows[] = {
        // One registration for each child, called once; the rest is dropped.
        {"a1 b2 x2 x1 x3 . . x1 .", "", "b2:1 a1:2 "},
        {"-1 a1 -1 -1 x1 .", "", "no no "},
        {"a1 b1 x1 .", "", "b1:1 "},
        // Reaped and not yet called: replaced with the status kept, or dropped with it.
        {"a1 b2 c3 x1 x2 x3 .", "d2 -3", "a1:1 d2:2 "},
        {"a1 b2 x1 x2 .", "-2 -2 c2 .", "a1:1 no "},
        // Callbacks run passes, register again, and fork.
        {"a1 b2 x1 x2 .", ". c3 x3", "a1:1 b2:2 c3:3 "},
        {"a1 x1 .", "a1 x1", "a1:1 a1:2 "},
        {"a1 b2 c3 x1 x2 .", "* -2 -3 b2 x2", "a1:1 no no b2:3 "},
        // What follows a stop before its callback is kept for the registration made there, ...
        {"a1 s1 x1 .", "b1", "a1:s b1:1 "},
        {"a1 s1 x1 .", "b1 .", "a1:s b1:1 "},
        {"a1 s1 .", "x1 b1", "a1:s b1:1 "},
        {"a1 s1 s1 .", "b1 x1", "a1:s b1:s "},
        {"a1 s1 s1 x1 .", "b1", "a1:s b1:1 "},
        {"a1 s1 c1 x1 b1 .", "", "b1:s "},
        {"a1 s1 x1 .", "b1 -1 c1 .", "a1:s "},
        {"a1 s1 .", "a1 s1 . x1 b1", "a1:s a1:s b1:1 "},
        // ... and for nobody else.
        {"a1 s1 x1 . b1 .", "", "a1:s "},
        {"a1 s1 x1 x1 .", "b1", "a1:s b1:1 "},
        {"a1 s1 x1 .", "* b1 .", "a1:s "},
        {"a1 s1 x2 .", "b2 .", "a1:s "},
        {"a1 x1 x1 .", "b1", "a1:1 "},
        {"a1 b2 x1 x2 .", "x2 c2", "a1:1 c2:2 "},
        {"a9 s9 x9 .", "b9 . x9", "a9:s b9:2 "},
        {"a9 s9 s9 .", "b9", "a9:s b9:s "},
        // The library's own registrations are out of the program's reach, and the reverse.
        {"A1 -1 x1 .", "", "no A1:1 "},
        {"A1 b1 x1 .", "", "A1:1 b1:1 "},
        {"A1 b1 -1 x1 .", "", "A1:1 "},
        {"A1 x1 -1 b1 . x1 .", "", "no A1:1 b1:2 "},
        {"A1 s1 x1 .", "", "A1:s "},
        {"A1 * x1 .", "", ""},
        {"A1 x1 * .", "", ""},
        // A pid comes round again: what is live under it is nobody's any more.
        {"a1 x1 A1 x1 .", "", "a1:1 A1:2 "},
        {"A1 x1 B1 x1 .", "", "A1:1 B1:2 "},
        {"a1 A1 x1 .", "", "A1:1 "},
        {"A1 B1 x1 .", "", "B1:1 "},
    };
    size_t heap = 0;
    for (int round = 0; round < 20; ++round) {
        for (const auto &row : kRows)
            EXPECT_EQ(Registry(row.onFirstCall).play(row.script), row.log)
                << row.script << " / " << row.onFirstCall;
        if (round == 9) heap = ::mallinfo2().uordblks;
    }
    EXPECT_EQ(::mallinfo2().uordblks, heap) << "records leaked";
}

TEST_F(Children, AreReportedHoweverTheyEnd) {
    TestChild exits([] { ::_exit(255); }), killed([] { (void)::raise(SIGKILL); }), stops([] {
        (void)::raise(SIGSTOP);
        ::_exit(4);
    });
    EXPECT_EQ(exits.await(), 0xff00);
    EXPECT_EQ(killed.await(), SIGKILL);
    EXPECT_EQ(stops.await(), 0x137f);
    EXPECT_EQ(exits.status.pid, exits.pid);
    EXPECT_GT(exits.status.usage.ru_maxrss, 0);
    EXPECT_EQ(killed.status.exitCode + killed.status.coreDumped + killed.status.stopped, 0);
    EXPECT_EQ(stops.status.stopped, 1);
    stops.add();
    ASSERT_EQ(::kill(stops.pid, SIGCONT), 0);
    EXPECT_EQ(stops.await(2), 0x400);
    killed.add();
    dumpedCore = killed.pid;
    ASSERT_EQ(::raise(SIGCHLD), 0);
    EXPECT_EQ(killed.await(2), SIGSEGV | 0x80);
    killed.status.stopped = 1;
    EXPECT_EQ(buildStatus(&killed.status), SIGSEGV << 8 | 0x7f);
}

// One signal may stand for several children, and children that nobody registered are reaped too.
TEST_F(Children, AreAllReapedInOnePassThatThenDoesNotWait) {
    const pid_t stranger = ::fork();
    if (stranger == 0) ::_exit(0);
    awaitZombie(stranger);
    std::deque<TestChild> children;
    int inner = -1;
    for (int i = 0; i < 20; ++i) {
        TestChild &child = children.emplace_back([] {});
        awaitZombie(child.pid);
        child.onDone = [&] { inner = inner == -1 ? iosched(-1) : inner; };
    }
    TestTimer late(10000);  // ends a pass that waits
    startTimer(&late);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(inner, 0) << "the pass inside ran the others' callbacks";
    for (const TestChild &child : children)
        EXPECT_EQ(child.reports, 1);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);  // the stranger is gone too
}

// The signal of such a child came before anybody caught it.
TEST(ChildrenOfBefore, AreReportedByTheFirstPass) {
    EXPECT_CHILD_OK([] {
        startLibrary();
        EXPECT_EQ(iopeek(), 0) << "nobody was registered";
    });
    for (const bool ended : {false, true}) {
        EXPECT_CHILD_OK([ended] {
            TestChild child([] { ::_exit(5); });
            if (ended) awaitZombie(child.pid);
            startLibrary();
            EXPECT_EQ(child.await(), 0x500);
        });
    }
}
