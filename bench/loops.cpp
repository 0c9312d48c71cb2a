// The workloads of an event loop, compiled once for each library with the adapter that LOOP names.
//
// Every workload causes its events itself and knows how many there must be: serve() runs passes
// until all have come, and one too many ends the run, as does one with wrong content. A missing one
// leaves the worker asleep, which bench.py tells from one that is slow.

#include "worker.h"

#include LOOP

#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

using loop::Child, loop::Deferred, loop::Input, loop::Reader, loop::Timer;

// Steps that visit n things in an order without locality: a prime above all sizes in use but the
// largest, none of which it divides.
constexpr long kStride = 7919;

long served;  // callbacks that have run

void serve(long events) {
    const long wanted = served + events;
    while (served < wanted)
        loop::pass();
    check(served == wanted, "more callbacks than events");
}

// ---- descriptors: counters, one descriptor each, readable while they are not 0 ----

std::deque<Input> inputs;
long readyInEachPass;
size_t turn;

void ring(const Input &input) {
    const uint64_t one = 1;
    check(::write(input.fd, &one, sizeof one) == sizeof one, "eventfd");
}

void answer(Input &input) {
    uint64_t rung = 0;
    check(::read(input.fd, &rung, sizeof rung) == sizeof rung && rung == 1, "nobody rang");
    ++served;
}

void answerAndRegisterAnew(Input &input) {
    loop::remove(input);
    answer(input);
    loop::add(input);
}

template <auto Call = answer>
void addInputs(long count) {
    for (long i = 0; i < count; ++i) {
        const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        check(fd >= 0, "eventfd");
        loop::init<Call>(inputs.emplace_back(), fd);
        loop::add(inputs.back());
    }
}

// size descriptors, of which one is always the active one
void prepareIdle(long size, long) {
    loop::open();
    addInputs(size + 1);
}

long runIdle(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        ring(inputs.back());
        serve(1);
    }
    return repeats;
}

void prepareAnew(long size, long) {
    loop::open();
    addInputs(size);
    addInputs<answerAndRegisterAnew>(1);
}

// One of the quiet ones goes in every second pass and is back in the next.
void prepareToggled(long size, long) {
    prepareIdle(size + 1, 0);
}

long runToggled(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        loop::remove(inputs.front());
        ring(inputs.back());
        serve(1);
        loop::add(inputs.front());
        ring(inputs.back());
        serve(1);
    }
    return 2 * repeats;
}

// size descriptors, of which `busy` are ready in each pass: evenly spread, others in every pass
void prepareReady(long size, long busy) {
    loop::open();
    addInputs(size);
    readyInEachPass = busy;
}

long runReady(long repeats) {
    const size_t step = inputs.size() / static_cast<size_t>(readyInEachPass);
    for (long i = 0; i < repeats; ++i) {
        turn = (turn + kStride) % inputs.size();
        for (size_t j = 0; j < static_cast<size_t>(readyInEachPass); ++j)
            ring(inputs[(turn + j * step) % inputs.size()]);
        serve(readyInEachPass);
    }
    return repeats * readyInEachPass;
}

// ---- timers ----

constexpr int64_t kMinuteMs = 60'000;

std::deque<Timer> timers;
uint32_t seed = 1;

// Between one and two minutes: none expires during a run.
int64_t someInterval() {
    seed = seed * 1664525 + 1013904223;
    return kMinuteMs + (seed >> 8) % kMinuteMs;
}

void expire(Timer &) {
    ++served;
}

void prepareTimers(long size, long) {
    loop::open();
    for (long i = 0; i < size; ++i)
        loop::init<expire>(timers.emplace_back());
}

// size timers are running besides the one that is started and stopped
void prepareRunning(long size, long) {
    prepareTimers(size + 1, 0);
    for (auto timer = timers.begin() + 1; timer != timers.end(); ++timer)
        loop::start(*timer, someInterval());
}

long runStartStop(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        loop::start(timers.front(), someInterval());
        loop::stop(timers.front());
    }
    return repeats;
}

long runStartEqual(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        for (Timer &timer : timers)
            loop::start(timer, kMinuteMs);
        stopwatch.stop();
        for (Timer &timer : timers)
            loop::stop(timer);
        stopwatch.start();
    }
    return repeats * static_cast<long>(timers.size());
}

// All of them expire within ten milliseconds; only what fires them is timed.
long runFire(long repeats) {
    constexpr int64_t kSpreadMs = 10;
    for (long i = 0; i < repeats; ++i) {
        stopwatch.stop();
        for (size_t j = 0; j < timers.size(); ++j)
            loop::start(timers[j], 1 + static_cast<int64_t>(j * kStride) % kSpreadMs);
        timespec left{0, (kSpreadMs + 2) * 1'000'000};
        while (::nanosleep(&left, &left) != 0) {
        }
        stopwatch.start();
        serve(static_cast<long>(timers.size()));
    }
    return repeats * static_cast<long>(timers.size());
}

// ---- deferred calls ----

std::deque<Deferred> deferreds;

void runDeferred(Deferred &) {
    ++served;
}

void prepareDeferred(long size, long) {
    loop::open();
    for (long i = 0; i < size; ++i)
        loop::init<runDeferred>(deferreds.emplace_back());
}

long runDeferredCalls(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        for (Deferred &deferred : deferreds)
            loop::defer(deferred);
        serve(static_cast<long>(deferreds.size()));
    }
    return repeats * static_cast<long>(deferreds.size());
}

// ---- messages: read from pipes, by asynchronous requests where the library has them ----

struct Pipe : Reader {
    int writeEnd;
};

std::deque<Pipe> pipes;

// A message is the address of the pipe that it was sent into.
void receive(Reader &reader) {
    const Pipe *sentInto = nullptr;
    check(reader.length == sizeof sentInto, "a message of another length");
    std::memcpy(&sentInto, reader.buffer, sizeof sentInto);
    check(sentInto == &reader, "another pipe's message");
    ++served;
}

template <bool Anew>
void preparePipes(long size, long busy) {
    loop::open();
    readyInEachPass = busy;
    for (long i = 0; i < size; ++i) {
        int ends[2];
        check(::pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0, "pipe2");
        Pipe &pipe = pipes.emplace_back();
        pipe.writeEnd = ends[1];
        loop::read<receive, Anew>(pipe, ends[0]);
    }
}

long runMessages(long repeats) {
    for (long i = 0; i < repeats; ++i) {
        turn = (turn + kStride) % pipes.size();
        for (size_t j = 0; j < static_cast<size_t>(readyInEachPass); ++j) {
            const Pipe *pipe = &pipes[(turn + j) % pipes.size()];
            check(::write(pipe->writeEnd, &pipe, sizeof pipe) == sizeof pipe, "write");
        }
        serve(readyInEachPass);
    }
    return repeats * readyInEachPass;
}

// ---- children ----

std::deque<Child> children;

void childEnded(Child &) {
    ++served;
}

// The program that libuv is given too. Not a plain fork: what it shares with us, each of us would
// pay for at the next write.
int startSleeper() {
    char program[] = "sleep", seconds[] = "600";
    char *arguments[] = {program, seconds, nullptr};
    pid_t pid = 0;
    check(::posix_spawnp(&pid, program, nullptr, nullptr, arguments, ::environ) == 0, "spawn");
    return pid;
}

void prepareChildren(long size, long) {
    loop::open();
    for (long i = 0; i < size; ++i)
        loop::spawn<childEnded, startSleeper>(children.emplace_back());
}

// Timed from the moment when the child is there to be waited for. Signals are held back until then,
// for some libraries let them in outside their loops, too.
long runChildEnds(long repeats) {
    sigset_t all, asBefore;
    (void)sigfillset(&all);
    for (long i = 0; i < repeats; ++i) {
        stopwatch.stop();
        turn = (turn + kStride) % children.size();
        Child &child = children[turn];
        siginfo_t ended;
        check(sigprocmask(SIG_BLOCK, &all, &asBefore) == 0, "sigprocmask");
        check(::kill(child.pid, SIGKILL) == 0, "kill");
        check(::waitid(P_PID, static_cast<id_t>(child.pid), &ended, WEXITED | WNOWAIT) == 0,
              "waitid");
        stopwatch.start();
        check(sigprocmask(SIG_SETMASK, &asBefore, nullptr) == 0, "sigprocmask");
        serve(1);
        stopwatch.stop();
        loop::spawn<childEnded, startSleeper>(child);
        stopwatch.start();
    }
    return repeats;
}

// ---- the echo server ----

constexpr size_t kRequestBytes = 64;

struct Connection : Input {
    Timer idle;
};

std::deque<Connection> connections;
int client;  // a socket: how many batches we want, a byte from the client for each that it has sent

void serveRequest(Input &input) {
    char bytes[kRequestBytes];
    check(::read(input.fd, bytes, sizeof bytes) == sizeof bytes, "request");
    check(::write(input.fd, bytes, sizeof bytes) == sizeof bytes, "reply");
    loop::restart(static_cast<Connection &>(input).idle, kMinuteMs);
    ++served;
}

void connectionWasIdle(Timer &) {
    check(false, "a connection was idle for a minute");
}

void sendRequest(int fd, size_t number) {
    char bytes[kRequestBytes] = {};
    std::memcpy(bytes, &number, sizeof number);
    check(::write(fd, bytes, sizeof bytes) == sizeof bytes, "client's write");
}

void expectReply(int fd, size_t number) {
    char bytes[kRequestBytes];
    check(::read(fd, bytes, sizeof bytes) == sizeof bytes, "client's read");
    check(std::memcmp(bytes, &number, sizeof number) == 0, "another request's reply");
}

// A batch is `busy` requests, each on a connection of its own; the next batch takes the next ones.
[[noreturn]] void runClient(const std::vector<int> &fds, size_t busy, int server) {
    size_t first = 0;
    for (long batches; ::read(server, &batches, sizeof batches) == sizeof batches;) {
        for (; batches > 0; --batches, first += busy) {
            for (size_t i = first; i < first + busy; ++i)
                sendRequest(fds[i * kStride % fds.size()], i);
            check(::write(server, "", 1) == 1, "client's byte");
            for (size_t i = first; i < first + busy; ++i)
                expectReply(fds[i * kStride % fds.size()], i);
        }
    }
    std::_Exit(0);
}

// Connections over the loopback interface: the servers' ends in one vector, the clients' in the
// other.
void connect(size_t count, std::vector<int> &servers, std::vector<int> &clients) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(::bind(listener, any, length) == 0 && ::listen(listener, 1) == 0 &&
              ::getsockname(listener, any, &length) == 0,
          "listener");
    const int on = 1;
    const linger reset{1, 0};  // thousands of ports would otherwise be taken for a minute
    while (servers.size() < count) {
        clients.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        check(clients.back() >= 0, "socket");
        check(::connect(clients.back(), any, length) == 0, "connect");
        servers.push_back(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        check(servers.back() >= 0, "accept");
        for (const int fd : {clients.back(), servers.back()})
            check(::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0 &&
                      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0,
                  "setsockopt");
    }
    (void)::close(listener);
}

void prepareEcho(long size, long busy) {
    std::vector<int> servers, clients;
    connect(static_cast<size_t>(size), servers, clients);
    int orders[2];
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, orders) == 0, "socketpair");
    const int pid = ::fork();
    check(pid >= 0, "fork");
    for (const int fd : pid == 0 ? servers : clients)
        (void)::close(fd);
    (void)::close(orders[pid == 0 ? 0 : 1]);
    if (pid == 0) runClient(clients, static_cast<size_t>(busy), orders[1]);
    client = orders[0];
    readyInEachPass = busy;
    loop::open();
    for (const int fd : servers) {
        Connection &connection = connections.emplace_back();
        loop::init<serveRequest>(connection, fd);
        loop::init<connectionWasIdle>(connection.idle);
        loop::add(connection);
        loop::start(connection.idle, kMinuteMs);
    }
}

// Timed from the moment when a batch has been sent, so that every library finds the same.
long runEcho(long repeats) {
    check(::write(client, &repeats, sizeof repeats) == sizeof repeats, "orders");
    for (long i = 0; i < repeats; ++i) {
        char sent;
        stopwatch.stop();
        check(::read(client, &sent, 1) == 1, "the client has ended");
        stopwatch.start();
        serve(readyInEachPass);
    }
    return repeats * readyInEachPass;
}

constexpr Workload kWorkloads[] = {
    {"idle", prepareIdle, runIdle},
    {"ready", prepareReady, runReady},
    {"anew", prepareAnew, runIdle},
    {"toggled", prepareToggled, runToggled},
    {"start-stop", prepareRunning, runStartStop},
    {"start-equal", prepareTimers, runStartEqual},
    {"fire", prepareTimers, runFire},
    {"deferred", prepareDeferred, runDeferredCalls},
    {"aio-kept", preparePipes<false>, runMessages},
    {"aio-anew", preparePipes<true>, runMessages},
    {"child", prepareChildren, runChildEnds},
    {"echo", prepareEcho, runEcho},
};

}  // namespace

const std::span<const Workload> workloads = kWorkloads;
