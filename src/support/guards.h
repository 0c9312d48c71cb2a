// Small owners that clean up on an early return.
//
// All of them keep errno, so that the caller sees the error of the call that failed and not that of
// the clean-up. None may live across a fork whose child ends in _exit: destructors do not run
// there.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>

namespace iosched_lib {

class ErrnoGuard {
public:
    ErrnoGuard() : saved_(errno) {}
    ~ErrnoGuard() { errno = saved_; }
    ErrnoGuard(const ErrnoGuard &) = delete;
    ErrnoGuard &operator=(const ErrnoGuard &) = delete;

private:
    int saved_;
};

// Owns one descriptor until release(); -1 owns nothing.
class FdGuard {
public:
    explicit FdGuard(int fd) : fd_(fd) {}
    ~FdGuard() { reset(); }
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ErrnoGuard keep;
            (void)::close(fd_);  // nothing to be done: the descriptor is gone either way
        }
        fd_ = fd;
    }

private:
    int fd_;
};

// Owns one malloc'ed record until release().
template <class T>
class HeapGuard {
public:
    explicit HeapGuard(T *record) : record_(record) {}
    ~HeapGuard() {
        ErrnoGuard keep;
        std::free(record_);
    }
    HeapGuard(const HeapGuard &) = delete;
    HeapGuard &operator=(const HeapGuard &) = delete;
    T *get() const { return record_; }
    T *operator->() const { return record_; }
    T *release() { return std::exchange(record_, nullptr); }

private:
    T *record_;
};

// A zero-filled record on the heap, or null with errno ENOMEM.
template <class T>
T *newRecord() {
    return static_cast<T *>(std::calloc(1, sizeof(T)));
}

}  // namespace iosched_lib

using namespace iosched_lib;
