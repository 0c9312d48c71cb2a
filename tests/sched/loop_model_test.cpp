// A random program played against the library, with its descriptors polled and parked, and against
// a loop that does what the library promises in the simplest way. All must do the same in the same
// order: every callback, result and peek is compared.
#include "sched/ready_internal.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sys/mman.h>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr int kSlots = 10;       // descriptors under fixed numbers, so that all runs have the same:
constexpr int kFirstFd = 100;    // the slots' own ends,
constexpr int kFirstPeer = 200;  // the other ends and
constexpr int kFirstDup = 300;   // second descriptors for the slots' files
constexpr int kSignals[] = {SIGHUP, SIGUSR1, SIGUSR2};

// All callbacks: a letter for the kind, and the descriptor, signal or number of the record.
std::function<void(char, int)> onEvent;

// ---- the library ----

struct Library {
    Library(Parking policy, int share) {
        parkingPolicy = policy;
        auditShare = share;
        startLibrary();
        for (int i = 0; i < kSlots; ++i) {
            calls[i].func = [](DelayedCall *c) { onEvent('d', static_cast<int>(c - calls)); };
            timers[i].func = [](SchedTimer *t) { onEvent('t', static_cast<int>(t - timers)); };
        }
    }
    void watch(int fd, bool output, bool on) {
        const SchedIOFunc in = [](void *, int f) { onEvent('i', f); };
        const SchedIOFunc out = [](void *, int f) { onEvent('o', f); };
        if (output) (void)registerOutput(fd, on ? out : nullptr, nullptr);
        if (!output) (void)registerInput(fd, on ? in : nullptr, nullptr);
    }
    void suspend(int fd, bool on) { (void)(on ? disableSched(fd) : enableSched(fd)); }
    int pass() { return iosched(0); }
    int peek() { return iopeek(); }
    void queue(int call) { registerDelayedCall(&calls[call]); }
    void unqueue(int call) { (void)unRegisterDelayedCall(&calls[call]); }
    void timer(int number) { (void)restartTimer(&timers[number]); }
    void treat(int sig, bool caught) {
        (void)catchSignal(sig, caught ? [](int s) { onEvent('s', s); } : SIG_IGN);
    }
    void raiseSignal(int sig) { (void)::kill(::getpid(), sig); }
    void childEnded() {}
    void restart() {
        if (ExitSched() == 0) startLibrary();
    }
    pid_t forkLoop() { return ioFork(); }

    static inline DelayedCall calls[kSlots];
    static inline SchedTimer timers[kSlots];
};

// ---- the same, naively ----

struct Naive {
    struct Entry {
        bool func[2] = {false, false};  // input, output
        bool off[2] = {false, false};
    };

    void watch(int fd, bool output, bool on) {
        table[fd].func[output] = on;
        if (!on) table[fd].off[output] = false;
    }
    void suspend(int fd, bool on) { table[fd].off[0] = table[fd].off[1] = on; }
    std::map<int, int> poll() {
        std::map<int, int> found;
        for (auto &[fd, entry] : table) {
            const int events = (entry.func[0] ? POLLIN : 0) | (entry.func[1] ? POLLOUT : 0);
            pollfd one{fd, static_cast<short>(events), 0};
            if (events != 0 && ::poll(&one, 1, 0) == 1) found[fd] = one.revents;
        }
        return found;
    }
    int pass() {
        std::vector<int> batch;
        batch.swap(queued);
        batches.push_back(&batch);
        while (!batch.empty())
            onEvent('d', takeFirst(batch));
        batches.pop_back();
        armHeldBack();
        const int generation = ++passes;
        marked.insert(raised.begin(), raised.end());
        byte = byte || !raised.empty();
        raised.clear();
        std::map<int, int> found = poll();
        const int count = static_cast<int>(found.size()) + (byte ? 1 : 0);
        if (byte) selfPipe();  // the lowest descriptor of all
        for (auto &[fd, events] : found) {
            for (const int out : {0, 1}) {
                if (passes != generation) return count;
                const int wanted = (out ? POLLOUT : POLLIN) | POLLERR | POLLHUP;
                if (!table[fd].func[out] || table[fd].off[out] || (events & wanted) == 0) continue;
                if (!out) events &= ~(POLLERR | POLLHUP);
                table[fd].off[out] = true;
                onEvent(out ? 'o' : 'i', fd);
                table[fd].off[out] = false;
            }
        }
        return count;
    }
    void selfPipe() {
        for (int sig = 1; sig <= 64; ++sig) {
            if (marked.erase(sig) == 0) continue;
            if (sig == SIGALRM) fireTimers();
            while (sig == SIGCHLD && ::waitpid(-1, nullptr, WNOHANG) > 0)
                continue;
            if (sig != SIGALRM && sig != SIGCHLD) onEvent('s', sig);
        }
        byte = !marked.empty();
    }
    // All that run are due. The signal for what the run has not come to is sent by a pass inside
    // it.
    void fireTimers() {
        ++runs;
        heldBack = true;
        while (!running.empty())
            onEvent('t', takeFirst(running));
        heldBack = false;
        --runs;
    }
    void armHeldBack() {
        if (heldBack && !running.empty()) raised.insert(SIGALRM);
        heldBack = false;
    }
    int peek() {
        armHeldBack();
        return !raised.empty() || byte || !poll().empty();
    }
    void queue(int call) {
        bool waits = std::count(queued.begin(), queued.end(), call) != 0;
        for (const std::vector<int> *batch : batches)
            waits = waits || std::count(batch->begin(), batch->end(), call) != 0;
        if (!waits) queued.push_back(call);
    }
    void unqueue(int call) { std::erase(queued, call); }
    void timer(int number) {
        std::erase(running, number);
        running.push_back(number);
        raised.insert(SIGALRM);
    }
    void treat(int sig, bool isCaught) {
        if (isCaught) return (void)caught.insert(sig);
        for (std::set<int> *set : {&caught, &marked, &raised})
            set->erase(sig);
    }
    void raiseSignal(int sig) {
        if (caught.count(sig) != 0) raised.insert(sig);
    }
    void childEnded() { raised.insert(SIGCHLD); }
    // What has arrived is marked, not called; SIGCHLD stays blocked.
    void restart() {
        const bool childSignal = raised.erase(SIGCHLD) != 0;
        marked.merge(raised);
        raised.clear();
        if (childSignal) raised.insert(SIGCHLD);
        byte = !marked.empty();
    }
    pid_t forkLoop() {
        const pid_t pid = ::fork();
        if (pid != 0) return pid;
        raised.clear();
        byte = !marked.empty();
        if (!running.empty() && runs == 0) raised.insert(SIGALRM);
        heldBack = heldBack || (!running.empty() && runs > 0);
        return 0;
    }
    static int takeFirst(std::vector<int> &list) {
        const int first = list.front();
        list.erase(list.begin());
        return first;
    }

    std::map<int, Entry> table;
    std::vector<int> queued, running;
    std::vector<std::vector<int> *> batches;
    std::set<int> caught, raised, marked;
    bool byte = false, heldBack = false;
    int passes = 0, runs = 0;
};

// ---- the program ----

struct Log {
    size_t length;
    char text[1 << 20];
};

template <class Loop>
class Program {
public:
    // tidy: a descriptor is unregistered before it is closed.
    Program(unsigned seed, Loop &loop, Log &log, bool tidy)
        : random_(seed), loop_(loop), log_(log), tidy_(tidy) {}

    void run(int steps) {
        onEvent = [this](char kind, int number) { event(kind, number); };
        (void)::signal(SIGPIPE, SIG_IGN);
        for (int slot = 0; slot < kSlots; ++slot)
            open(slot);
        for (const int sig : kSignals)
            treat(sig, true);
        for (int step = 0; step < steps; ++step) {
            for (int n = pick(4); n >= 0; --n)
                act();
            if (pick(4) == 0) loop_.timer(pick(kSlots));
            pass();
        }
    }

private:
    int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
    void write(char kind, int number) {
        const int n = std::snprintf(log_.text + log_.length, 16, "%c%d ", kind, number);
        log_.length = std::min(log_.length + static_cast<size_t>(n), sizeof log_.text - 16);
    }
    void event(char kind, int number) {
        write(kind, number);
        // Mostly the input is taken, so that not everything is ready all the time.
        if (kind == 'i' && pick(8) != 0) (void)!::read(number, bytes_, 8);
        for (int n = pick(3); n > 0; --n)
            act();
        if (depth_ < 3 && pick(6) == 0) pass();
        write('.', number);
    }
    void pass() {
        write('(', ++depth_);
        write(')', loop_.pass());
        --depth_;
    }
    void open(int slot) {
        int ends[2];
        if (slot % 3 == 0)
            ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
        else
            ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        for (const auto &[from, to] : {std::pair{ends[0], kFirstFd}, {ends[1], kFirstPeer}}) {
            ASSERT_EQ(::dup3(from, to + slot, O_CLOEXEC), to + slot);
            (void)::close(from);
        }
    }
    // Leaves the slot's number closed, or under another file: one that epoll refuses, or a socket.
    void replace(int slot) {
        const int fd = kFirstFd + slot;
        const bool unregister = tidy_ || pick(2) == 0;
        for (const bool output : {false, true})
            if (unregister) loop_.watch(fd, output, false);
        if (pick(3) == 0) (void)::dup3(fd, kFirstDup + slot, O_CLOEXEC);
        (void)::close(fd);
        if (pick(2) == 0) (void)::close(kFirstPeer + slot);
        const int what = pick(4);
        if (what == 1) (void)::dup3(regularFile_, fd, O_CLOEXEC);
        if (what > 1) open(slot);
    }
    // A stray child that does with its copies what it likes.
    void strayChild() {
        const pid_t pid = ::fork();
        for (int fd = kFirstFd; pid == 0 && fd < kFirstFd + kSlots; ++fd) {
            loop_.watch(fd, false, fd % 2 == 0);
            loop_.watch(fd, true, false);
        }
        if (pid == 0) ::_exit(loop_.peek());
        siginfo_t info;
        (void)::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
        loop_.childEnded();
    }
    // The program goes on in the child.
    void moveToChild() {
        const pid_t pid = loop_.forkLoop();
        int status = 0;
        if (pid != 0) (void)::waitpid(pid, &status, 0);
        if (pid != 0) ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    }
    void treat(int sig, bool caught) {
        caught_[sig] = caught;
        loop_.treat(sig, caught);
    }
    // Signals are held back again only when they are caught again.
    void restart() {
        loop_.restart();
        for (const int sig : kSignals)
            if (caught_[sig]) loop_.treat(sig, true);
    }
    void act() {
        const int slot = pick(kSlots), fd = kFirstFd + slot, peer = kFirstPeer + slot;
        const bool coin = pick(2) == 0;
        // clang-format off
        switch ("ffffrwtiiiiiIoOOszpqussscxhkn"[pick(29)]) {  // how often each comes
        case 'f': return (void)!::write(peer, bytes_, 1);
        case 'r': return (void)!::read(fd, bytes_, sizeof bytes_);
        case 'w': while (::write(fd, bytes_, sizeof bytes_) > 0) {} return;
        case 't': while (::read(peer, bytes_, sizeof bytes_) > 0) {} return;
        case 'i': return loop_.watch(fd, false, true);
        case 'I': return loop_.watch(fd, false, false);
        case 'o': return loop_.watch(fd, true, true);
        case 'O': return loop_.watch(fd, true, false);
        case 'z': return loop_.suspend(fd, coin);
        case 'p': return write('p', loop_.peek());
        case 'q': return loop_.queue(slot);
        case 'u': return loop_.unqueue(slot);
        case 's': return loop_.raiseSignal(kSignals[pick(3)]);
        case 'c': return treat(kSignals[pick(3)], pick(3) != 0);
        case 'x': return replace(slot);
        case 'h': return (void)(::shutdown(peer, SHUT_WR) == 0 || ::close(peer) == 0);
        case 'n': if (pick(4) == 0) restart(); return;
        default: if (pick(8) == 0) coin ? strayChild() : moveToChild();
        }
        // clang-format on
    }

    std::mt19937 random_;
    Loop &loop_;
    Log &log_;
    bool tidy_;
    std::map<int, bool> caught_;
    int depth_ = 0;
    int regularFile_ = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    char bytes_[4096] = {};
};

// What happens in a process that plays the program of this seed on a loop.
template <class Loop, class... Arguments>
std::string playedOn(unsigned seed, bool tidy, Arguments... arguments) {
    void *shared =
        ::mmap(nullptr, sizeof(Log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *log = static_cast<Log *>(shared);
    EXPECT_CHILD_OK([&] {
        Loop loop(arguments...);
        Program<Loop>(seed, loop, *log, tidy).run(300);
    });
    std::string text(log->text, log->length);
    (void)::munmap(shared, sizeof(Log));
    return text;
}

TEST(LoopModel, PolledAndParkedLoopsDoAsTheNaiveOne) {
    const char *word = std::getenv("IOSCHED_MODEL_SEEDS");
    const unsigned seeds =
        word != nullptr ? static_cast<unsigned>(std::strtoul(word, nullptr, 10)) : 20;
    for (unsigned seed = 1; seed <= seeds && !HasFailure(); ++seed) {
        // Closed while it is registered, a parked descriptor is noticed by an audit only.
        const bool tidy = seed % 2 == 0;
        const std::string expected = playedOn<Naive>(seed, tidy);
        EXPECT_GT(expected.size(), 2000U);
        for (const Parking policy : {Parking::kNever, Parking::kAlways, Parking::kSoon}) {
            const std::string got = playedOn<Library>(seed, tidy, policy, tidy ? 100 : 0);
            if (got == expected) continue;
            const auto [e, g] =
                std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
            const auto from =
                static_cast<size_t>(std::max<ptrdiff_t>(e - expected.begin() - 200, 0));
            ADD_FAILURE() << "seed " << seed << ", policy " << static_cast<int>(policy)
                          << "\nexpected " << expected.substr(from, 260) << "\ngot      "
                          << got.substr(from, 260);
        }
    }
}

}  // namespace
