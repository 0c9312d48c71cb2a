// One client's socket: frames in, answers out, and never a wait for a client that does not read.
#pragma once

#include "session.h"

#include <vector>

// Deletes itself when the client goes or sends what is no request.
class Connection {
public:
    // Takes the socket over.
    static void start(int socket, uint32_t id);

    static size_t count();

private:
    Connection(int socket, uint32_t id);
    ~Connection();

    static void onInput(void *arg, int fd);
    static void onOutput(void *arg, int fd);

    bool receive();
    bool answerAll();
    bool send();
    bool hasWholeFrame() const;
    void goOn();

    const int socket_;
    Session session_;
    Outbox outbox_;
    std::vector<char> input_;                // as large as the largest frame
    size_t begin_ = 0, end_ = 0;             // what of it has come and is not answered
    bool reading_ = true, writing_ = false;  // as registered with the loop
};

// Called when a connection has gone.
void connectionEnded();
