// The witness: watches what a server grants and says when two grants cannot stand together.
//
// It knows nothing of the server's lock table and shares no code with it. It is told of each grant
// when the reply has arrived, and of its end before the request that gives it up is sent: what it
// believes to be held was therefore held at the server all the time, and two conflicting beliefs
// are a fault of the server's, whatever the order in which the replies came.
//
// The one end that nobody announces is the death of a server process, or its goodbye. So before it
// calls a conflict a violation it asks whether the earlier holder still has its connection.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One open, held by (client, handle).
struct OpenGrant {
    int client;
    uint32_t handle;
    bool reads, writes, denyReads, denyWrites;
    bool soleOplock;  // exclusive or batch: nobody else may join
};

// One byte range.
struct RangeGrant {
    int client;
    uint32_t handle;
    int64_t first, last;
    bool exclusive;
    uint64_t since;  // tick()
};

class Witness {
public:
    // stillHolds(client) is false when the client has lost its connection but does not know it yet.
    Witness(int files, std::function<bool(int client)> stillHolds);

    // Numbers the events, to tell what came before what.
    uint64_t tick() { return ++ticks_; }

    void opened(int file, OpenGrant grant);
    void modeGivenUp(int file, int client, uint32_t handle);  // oplock and denials
    void closed(int file, int client, uint32_t handle);       // with its ranges
    void locked(int file, RangeGrant grant);
    void unlocked(int file, int client, uint32_t handle, int64_t first, int64_t last);
    // A transfer that the server carried out some time after the tick sentAt.
    void transferred(int file, int client, uint32_t handle, int64_t first, int64_t last,
                     bool writing, uint64_t sentAt);
    void forget(int client);  // its connection has ended, and everything that it held

    uint64_t checked() const { return checked_; }  // pairs compared
    uint64_t violations() const { return violations_; }
    const std::string &firstViolation() const { return first_; }

private:
    struct File {
        std::vector<OpenGrant> opens;
        std::vector<RangeGrant> ranges;
    };
    template <class Grant, class Conflicts>
    void check(int file, const std::vector<Grant> File::*list, const char *what, int client,
               Conflicts conflicts);

    std::vector<File> files_;
    std::function<bool(int)> stillHolds_;
    uint64_t ticks_ = 0, checked_ = 0, violations_ = 0;
    std::string first_;
};
