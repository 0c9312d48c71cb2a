// One simulated client: a connection, one request at a time, and what it holds.
#pragma once

#include "report.h"
#include "witness.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

int64_t nowUs();  // of the monotonic clock

// What the clients have in common.
struct Load {
    int port = 7070;
    int files = 12;
    Report report;
    Witness *witness = nullptr;
    std::mt19937 random{1};
    int masterPid = 0;     // as the greeting tells
    int64_t killedUs = 0;  // when a worker was killed raw; 0 once a grant asked for since has come
    int64_t worstGrantUs = 0;  // from such a kill to that grant
    bool finishing = false;    // no new requests
    int sockets = 0;           // connections, and attempts at one
    int connected = 0;
};

class Client {
public:
    Client(Load &load, int number) : load_(load), number_(number) {}
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { disconnect(); }

    void connect();
    void finish();  // ends the connection once nothing is under way

    // False when the server has given this client up, whether or not it has read so yet.
    bool stillHolds() const;

private:
    struct Held {  // a range lock
        int64_t offset, length;
    };
    struct Open {
        int file;
        uint32_t handle;
        bool reads, writes, oplock;
        std::vector<Held> locks;
    };
    struct Request {  // the one under way
        Kind kind;
        size_t open;  // index into opens_
        int file;
        uint32_t words;  // of an OPEN: what was asked for
        int64_t offset, length;
        bool exclusive;
        int64_t sentUs;
        uint64_t sentTick;
    };

    static void onConnected(void *arg, int fd);
    static void onInput(void *arg, int fd);
    void disconnect();
    void lose();
    void takeLines();
    void greeted(const std::string &line);
    void answered(const std::string &line);
    void granted(const std::string &line);

    void next();
    void sendOpen();
    void sendOnOpen(size_t index);
    void sendRange(Kind kind, size_t index);
    void sendUnlock(size_t index);
    void sendMode(size_t index);
    void sendClose(size_t index);
    void send(const std::string &line);
    uint32_t dice(uint32_t sides) { return static_cast<uint32_t>(load_.random()) % sides; }

    Load &load_;
    const int number_;
    int fd_ = -1;
    int workerPid_ = 0;  // 0 until greeted
    bool connected_ = false;
    bool pending_ = false;
    size_t skipBytes_ = 0;  // of a DATA block
    std::string input_;
    Request request_{};
    std::vector<Open> opens_;
};
