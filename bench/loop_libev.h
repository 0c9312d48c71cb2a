// libev under the workloads. A deferred call is an event fed to a watcher that waits for nothing.
#pragma once

#include "worker.h"

#define EV_COMPAT3 0
#define EV_MULTIPLICITY 1
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <ev.h>
#pragma GCC diagnostic pop

namespace loop {

inline struct ev_loop *base;

inline void open() {
    base = ev_default_loop(0);
    check(base != nullptr, "ev_default_loop");
}
inline void pass() {
    (void)ev_run(base, EVRUN_ONCE);
}

struct Input {
    int fd;
    ev_io handle;
};

template <auto Call>
void init(Input &input, int fd) {
    input.fd = fd;
    input.handle.data = &input;
    const auto ready = [](struct ev_loop *, ev_io *w, int) {
        Call(*static_cast<Input *>(w->data));
    };
    ev_io_init(&input.handle, +ready, fd, EV_READ);
}
inline void add(Input &input) {
    ev_io_start(base, &input.handle);
}
inline void remove(Input &input) {
    ev_io_stop(base, &input.handle);
}

struct Timer {
    ev_timer handle;
};

template <auto Call>
void init(Timer &timer) {
    timer.handle.data = &timer;
    const auto expired = [](struct ev_loop *loop, ev_timer *w, int) {
        ev_timer_stop(loop, w);  // restart() leaves a repeating one
        Call(*static_cast<Timer *>(w->data));
    };
    ev_init(&timer.handle, +expired);
}
inline void start(Timer &timer, int64_t ms) {
    ev_timer_set(&timer.handle, static_cast<double>(ms) / 1000, 0.);
    ev_timer_start(base, &timer.handle);
}
inline void restart(Timer &timer, int64_t ms) {
    timer.handle.repeat = static_cast<double>(ms) / 1000;
    ev_timer_again(base, &timer.handle);
}
inline void stop(Timer &timer) {
    ev_timer_stop(base, &timer.handle);
}

struct Deferred {
    ev_prepare handle;
};

template <auto Call>
void init(Deferred &deferred) {
    deferred.handle.data = &deferred;
    const auto due = [](struct ev_loop *, ev_prepare *w, int) {
        Call(*static_cast<Deferred *>(w->data));
    };
    ev_prepare_init(&deferred.handle, +due);
}
inline void defer(Deferred &deferred) {
    ev_feed_event(base, &deferred.handle, EV_CUSTOM);
}

struct Child {
    int pid;
    ev_child handle;
};

template <auto Call, auto Start>
void spawn(Child &child) {
    const auto ended = [](struct ev_loop *loop, ev_child *w, int) {
        auto &done = *static_cast<Child *>(w->data);
        check(w->rpid == done.pid, "another child's end");
        ev_child_stop(loop, w);
        Call(done);
    };
    child.handle.data = &child;
    child.pid = Start();
    ev_child_init(&child.handle, +ended, child.pid, 0);
    ev_child_start(base, &child.handle);
}

}  // namespace loop

#include "plain_reader.h"
