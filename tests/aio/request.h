// A request with a function object as its completion function.
#pragma once

#include "support/loop.h"

#include "aio/aio_internal.h"
#include "iosched/aio.h"

#include <functional>
#include <string>
#include <utility>

struct TestRequest : AIORequest {
    TestRequest(int descriptor, void *bytes, size_t count, std::function<int()> action = {})
        : onDone(std::move(action)) {
        fd = descriptor;
        buffer = bytes;
        length = count;
        callback = &TestRequest::done;
        userData = this;
        transferred = error = -7;
    }
    static int done(AIORequest *request) {
        auto *self = static_cast<TestRequest *>(request);
        EXPECT_EQ(self->userData, self);
        ++self->calls;
        return self->onDone ? self->onDone() : 0;
    }

    int calls = 0;
    std::function<int()> onDone;
};

struct AIOPipeEnds {
    explicit AIOPipeEnds(int flags = AIO_PIPE_NONBLOCK_READ | AIO_PIPE_NONBLOCK_WRITE) {
        EXPECT_EQ(AIOPipe(&readFd, &writeFd, flags), 0);
    }
    ~AIOPipeEnds() {
        closeReadEnd();
        closeWriteEnd();
    }
    AIOPipeEnds(const AIOPipeEnds &) = delete;
    AIOPipeEnds &operator=(const AIOPipeEnds &) = delete;
    void closeReadEnd() { closeEnd(&readFd); }
    void closeWriteEnd() { closeEnd(&writeFd); }
    static void closeEnd(int *fd) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
    void put(const std::string &bytes) const {
        EXPECT_EQ(::write(writeFd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    int readFd = -1;
    int writeFd = -1;
};

// The number of records, once the list has been found sound in both directions.
inline int lengthOf(const ListLink &head) {
    int length = 0;
    for (const ListLink *link = head.next; link != &head; link = link->next, ++length)
        EXPECT_EQ(link->next->prev, link);
    EXPECT_EQ(head.next->prev, &head);
    return length;
}

inline int activeRecords() {
    return lengthOf(aioQueueHead);
}
inline int freeRecords() {
    return lengthOf(aioQueueFree);
}
