// libuv under the workloads. A deferred call is an idle handle that stops itself; children are only
// those that it started itself.
#pragma once

#include "worker.h"

#include <signal.h>
#include <uv.h>

namespace loop {

inline uv_loop_t *base;

inline void open() {
    base = uv_default_loop();
    check(base != nullptr, "uv_default_loop");
}
inline void pass() {
    (void)uv_run(base, UV_RUN_ONCE);
}

struct Input {
    int fd;
    uv_poll_t handle;
    uv_poll_cb func;
};

template <auto Call>
void init(Input &input, int fd) {
    input.fd = fd;
    input.handle.data = &input;
    input.func = [](uv_poll_t *h, int, int) { Call(*static_cast<Input *>(h->data)); };
    check(uv_poll_init(base, &input.handle, fd) == 0, "uv_poll_init");
}
inline void add(Input &input) {
    check(uv_poll_start(&input.handle, UV_READABLE, input.func) == 0, "uv_poll_start");
}
inline void remove(Input &input) {
    check(uv_poll_stop(&input.handle) == 0, "uv_poll_stop");
}

struct Timer {
    uv_timer_t handle;
    uv_timer_cb func;
};

template <auto Call>
void init(Timer &timer) {
    timer.handle.data = &timer;
    timer.func = [](uv_timer_t *h) { Call(*static_cast<Timer *>(h->data)); };
    check(uv_timer_init(base, &timer.handle) == 0, "uv_timer_init");
}
inline void start(Timer &timer, int64_t ms) {
    check(uv_timer_start(&timer.handle, timer.func, static_cast<uint64_t>(ms), 0) == 0, "start");
}
inline void restart(Timer &timer, int64_t ms) {
    start(timer, ms);
}
inline void stop(Timer &timer) {
    check(uv_timer_stop(&timer.handle) == 0, "uv_timer_stop");
}

struct Deferred {
    uv_idle_t handle;
    uv_idle_cb func;
};

template <auto Call>
void init(Deferred &deferred) {
    deferred.handle.data = &deferred;
    deferred.func = [](uv_idle_t *h) {
        (void)uv_idle_stop(h);
        Call(*static_cast<Deferred *>(h->data));
    };
    check(uv_idle_init(base, &deferred.handle) == 0, "uv_idle_init");
}
inline void defer(Deferred &deferred) {
    check(uv_idle_start(&deferred.handle, deferred.func) == 0, "uv_idle_start");
}

struct Child {
    int pid;
    uv_process_t handle;
};

template <auto Call, auto Start>
void spawn(Child &child) {
    static char program[] = "sleep", seconds[] = "600";
    static char *arguments[] = {program, seconds, nullptr};
    uv_process_options_t options{};
    options.file = program;
    options.args = arguments;
    options.exit_cb = [](uv_process_t *ended, int64_t, int) {
        uv_close(reinterpret_cast<uv_handle_t *>(ended),
                 [](uv_handle_t *h) { Call(*static_cast<Child *>(h->data)); });
    };
    child.handle.data = &child;
    check(uv_spawn(base, &child.handle, &options) == 0, "uv_spawn");
    child.pid = child.handle.pid;
}

}  // namespace loop

#include "plain_reader.h"
