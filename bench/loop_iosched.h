// iosched under the workloads. This file shows what an adapter offers; the others offer the same.
#pragma once

#include "worker.h"

#include "iosched/aio.h"
#include "iosched/procs.h"
#include "iosched/sched.h"

namespace loop {

// Once, before anything else.
inline void open() {
    char message[128];
    check(InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) == 0,
          message);
}

// Waits until something is to be done, and does all or some of it.
inline void pass() {
    (void)iosched(-1);
}

// ---- descriptors: Call(input) whenever fd is readable, until removed ----

struct Input {
    int fd;
    SchedIOFunc func;
};

template <auto Call>
void init(Input &input, int fd) {
    input.fd = fd;
    input.func = [](void *arg, int) { Call(*static_cast<Input *>(arg)); };
}
inline void add(Input &input) {
    check(registerInput(input.fd, input.func, &input) == 0, "registerInput");
}
inline void remove(Input &input) {
    check(registerInput(input.fd, nullptr, nullptr) == 0, "registerInput");
}

// ---- timers: Call(timer) once, ms milliseconds after start() or restart() ----

struct Timer : SchedTimer {};

template <auto Call>
void init(Timer &timer) {
    timer.func = [](SchedTimer *expired) { Call(*static_cast<Timer *>(expired)); };
}
inline void start(Timer &timer, int64_t ms) {
    timer.interval = ms;
    startTimer(&timer);
}
inline void restart(Timer &timer, int64_t ms) {
    timer.interval = ms;
    (void)restartTimer(&timer);
}
inline void stop(Timer &timer) {
    check(stopTimer(&timer) == 1, "stopTimer");
}

// ---- deferred calls: Call(deferred) once, from the next pass ----

struct Deferred : DelayedCall {};

template <auto Call>
void init(Deferred &deferred) {
    deferred.func = [](DelayedCall *due) { Call(*static_cast<Deferred *>(due)); };
}
inline void defer(Deferred &deferred) {
    registerDelayedCall(&deferred);
}

// ---- children: Call(child) when the process has ended ----

struct Child {
    int pid;
};

// Start is a function that starts a child and returns its process id.
template <auto Call, auto Start>
void spawn(Child &child) {
    const auto done = [](void *arg, const ChildStatus *status) {
        check(status->pid == static_cast<Child *>(arg)->pid, "another child's end");
        Call(*static_cast<Child *>(arg));
    };
    child.pid = Start();
    check(registerChild(child.pid, done, &child) == 0, "registerChild");
}

// ---- messages: Call(reader) after each read of `length` bytes into `buffer` ----

struct Reader {
    AIORequest request;
    char buffer[64];
    long length;  // what the last read gave
};

template <auto Call, bool Anew>
int haveRead(AIORequest *request) {
    auto &reader = *static_cast<Reader *>(request->userData);
    reader.length = request->transferred;
    Call(reader);
    if (!Anew) return 1;
    AIOCancelRead(request);
    check(AIORead(request) == 0, "AIORead");
    return 0;
}

// Anew: re-arm by a call of AIORead() after each message, not by the completion's result.
template <auto Call, bool Anew>
void read(Reader &reader, int fd) {
    reader.request = {fd, reader.buffer, sizeof reader.buffer, haveRead<Call, Anew>, &reader, 0, 0};
    check(AIORead(&reader.request) == 0, "AIORead");
}

}  // namespace loop
