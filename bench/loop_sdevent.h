// sd-event under the workloads. Its passes serve one event each.
#pragma once

#include "worker.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <systemd/sd-event.h>
#include <time.h>

namespace loop {

inline sd_event *base;

// Children are reported only while SIGCHLD is blocked.
inline void open() {
    sigset_t child;
    (void)sigemptyset(&child);
    (void)sigaddset(&child, SIGCHLD);
    check(sigprocmask(SIG_BLOCK, &child, nullptr) == 0, "sigprocmask");
    check(sd_event_new(&base) >= 0, "sd_event_new");
}
inline void pass() {
    check(sd_event_run(base, UINT64_MAX) >= 0, "sd_event_run");
}

// An event source and whether it is on.
struct Source {
    sd_event_source *handle;

    void enable(int mode) const { check(sd_event_source_set_enabled(handle, mode) >= 0, "enable"); }
};

struct Input : Source {
    int fd;
};

template <auto Call>
void init(Input &input, int fd) {
    const auto ready = [](sd_event_source *, int, uint32_t, void *arg) {
        Call(*static_cast<Input *>(arg));
        return 0;
    };
    input.fd = fd;
    check(sd_event_add_io(base, &input.handle, fd, EPOLLIN, +ready, &input) >= 0, "add_io");
    input.enable(SD_EVENT_OFF);
}
inline void add(Input &input) {
    input.enable(SD_EVENT_ON);
}
inline void remove(Input &input) {
    input.enable(SD_EVENT_OFF);
}

struct Timer : Source {};

template <auto Call>
void init(Timer &timer) {
    const auto expired = [](sd_event_source *, uint64_t, void *arg) {
        Call(*static_cast<Timer *>(arg));
        return 0;
    };
    constexpr uint64_t kAccuracyUs = 1000;
    check(sd_event_add_time(base, &timer.handle, CLOCK_MONOTONIC, 0, kAccuracyUs, +expired,
                            &timer) >= 0,
          "add_time");
    timer.enable(SD_EVENT_OFF);
}
inline void start(Timer &timer, int64_t ms) {
    const auto us = static_cast<uint64_t>(ms) * 1000;
    check(sd_event_source_set_time_relative(timer.handle, us) >= 0, "set_time_relative");
    timer.enable(SD_EVENT_ONESHOT);
}
inline void restart(Timer &timer, int64_t ms) {
    start(timer, ms);
}
inline void stop(Timer &timer) {
    timer.enable(SD_EVENT_OFF);
}

struct Deferred : Source {};

template <auto Call>
void init(Deferred &deferred) {
    const auto due = [](sd_event_source *, void *arg) {
        Call(*static_cast<Deferred *>(arg));
        return 0;
    };
    check(sd_event_add_defer(base, &deferred.handle, +due, &deferred) >= 0, "add_defer");
    deferred.enable(SD_EVENT_OFF);
}
inline void defer(Deferred &deferred) {
    deferred.enable(SD_EVENT_ONESHOT);
}

struct Child : Source {
    int pid;
};

template <auto Call, auto Start>
void spawn(Child &child) {
    const auto ended = [](sd_event_source *, const siginfo_t *info, void *arg) {
        auto &done = *static_cast<Child *>(arg);
        check(info->si_pid == done.pid, "another child's end");
        (void)sd_event_source_unref(done.handle);
        Call(done);
        return 0;
    };
    child.pid = Start();
    check(sd_event_add_child(base, &child.handle, child.pid, WEXITED, +ended, &child) >= 0,
          "add_child");
}

}  // namespace loop

#include "plain_reader.h"
