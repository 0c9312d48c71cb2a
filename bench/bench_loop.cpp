// What a pass of the loop costs, beside poll(2) alone and beside libevent on poll.
//
// A round writes one byte into a pipe and runs one pass, whose callback reads it; `idle` further
// pipes are watched and never ready. Only the loop sets the signal mask around its wait, which is two
// system calls of its five.

#include "iosched/sched.h"

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace {

struct Pipe {
    int readEnd;
    int writeEnd;
};

Pipe makePipe() {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    return {ends[0], ends[1]};
}

void closePipe(Pipe p) {
    (void)::close(p.readEnd);
    (void)::close(p.writeEnd);
}

void putByte(Pipe p) {
    if (::write(p.writeEnd, "", 1) != 1) std::abort();
}

void takeByte(int fd) {
    char byte;
    if (::read(fd, &byte, 1) != 1) std::abort();
}

// The active pipe is the last one, behind all idle ones.
std::vector<Pipe> makePipes(const benchmark::State &state) {
    std::vector<Pipe> pipes;
    for (int64_t i = 0; i <= state.range(0); ++i)
        pipes.push_back(makePipe());
    return pipes;
}

void closePipes(const std::vector<Pipe> &pipes) {
    for (const Pipe &p : pipes)
        closePipe(p);
}

void passOfIosched(benchmark::State &state) {
    char message[128];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0) {
        state.SkipWithError(message);
        return;
    }
    const std::vector<Pipe> pipes = makePipes(state);
    for (const Pipe &p : pipes)
        (void)registerInput(
            p.readEnd, [](void *, int fd) { takeByte(fd); }, nullptr);
    for (auto _ : state) {
        putByte(pipes.back());
        benchmark::DoNotOptimize(iosched(-1));
    }
    for (const Pipe &p : pipes)
        (void)registerInput(p.readEnd, nullptr, nullptr);
    closePipes(pipes);
    (void)ExitSched();
}

void passOfPollAlone(benchmark::State &state) {
    const std::vector<Pipe> pipes = makePipes(state);
    std::vector<pollfd> watched;
    for (const Pipe &p : pipes)
        watched.push_back({p.readEnd, POLLIN, 0});
    for (auto _ : state) {
        putByte(pipes.back());
        benchmark::DoNotOptimize(::poll(watched.data(), watched.size(), -1));
        for (const pollfd &entry : watched)
            if ((entry.revents & POLLIN) != 0) takeByte(entry.fd);
    }
    closePipes(pipes);
}

void passOfLibevent(benchmark::State &state) {
    event_config *config = event_config_new();
    (void)event_config_avoid_method(config, "epoll");
    (void)event_config_avoid_method(config, "select");
    event_base *base = event_base_new_with_config(config);
    event_config_free(config);
    const std::vector<Pipe> pipes = makePipes(state);
    std::vector<event *> events;
    for (const Pipe &p : pipes) {
        events.push_back(event_new(
            base, p.readEnd, EV_READ | EV_PERSIST, [](int fd, short, void *) { takeByte(fd); },
            nullptr));
        (void)event_add(events.back(), nullptr);
    }
    for (auto _ : state) {
        putByte(pipes.back());
        benchmark::DoNotOptimize(event_base_loop(base, EVLOOP_ONCE));
    }
    for (event *e : events)
        event_free(e);
    event_base_free(base);
    closePipes(pipes);
}

void idlePipes(benchmark::internal::Benchmark *bench) {
    bench->ArgName("idle")->Arg(0)->Arg(100);
}

}  // namespace

BENCHMARK(passOfIosched)->Apply(idlePipes);
BENCHMARK(passOfPollAlone)->Apply(idlePipes);
BENCHMARK(passOfLibevent)->Apply(idlePipes);
