// libevent under the workloads. It has no watchers for children.
#pragma once

#include "worker.h"

#include <event2/event.h>
#include <event2/event_struct.h>

namespace loop {

inline event_base *base;

inline void open() {
    base = event_base_new();
    check(base != nullptr, "event_base_new");
}
inline void pass() {
    check(event_base_loop(base, EVLOOP_ONCE) >= 0, "event_base_loop");
}

struct Input {
    int fd;
    event handle;
};

template <auto Call>
void init(Input &input, int fd) {
    input.fd = fd;
    const auto ready = [](int, short, void *arg) { Call(*static_cast<Input *>(arg)); };
    check(event_assign(&input.handle, base, fd, EV_READ | EV_PERSIST, ready, &input) == 0,
          "assign");
}
inline void add(Input &input) {
    check(event_add(&input.handle, nullptr) == 0, "event_add");
}
inline void remove(Input &input) {
    check(event_del(&input.handle) == 0, "event_del");
}

struct Timer {
    event handle;
};

template <auto Call>
void init(Timer &timer) {
    const auto expired = [](int, short, void *arg) { Call(*static_cast<Timer *>(arg)); };
    check(evtimer_assign(&timer.handle, base, expired, &timer) == 0, "evtimer_assign");
}
inline void start(Timer &timer, int64_t ms) {
    const timeval after{ms / 1000, ms % 1000 * 1000};
    check(evtimer_add(&timer.handle, &after) == 0, "evtimer_add");
}
inline void restart(Timer &timer, int64_t ms) {
    start(timer, ms);
}
inline void stop(Timer &timer) {
    check(evtimer_del(&timer.handle) == 0, "evtimer_del");
}

struct Deferred : Timer {};

template <auto Call>
void init(Deferred &deferred) {
    constexpr auto due = [](Timer &timer) { Call(static_cast<Deferred &>(timer)); };
    init<due>(static_cast<Timer &>(deferred));
}
inline void defer(Deferred &deferred) {
    event_active(&deferred.handle, EV_TIMEOUT, 0);
}

struct Child {
    int pid;
};

template <auto Call, auto Start>
void spawn(Child &) {
    noSuchFeature();
}

}  // namespace loop

#include "plain_reader.h"
