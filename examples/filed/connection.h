// One client: lines in, replies out.
//
// A connection is reference-counted. The table of connections holds one reference until close();
// whoever calls code that may run passes of the loop holds another, so that the record outlives the
// connection's end as long as somebody is going to look at it. After such a call: closed()?
//
// One command is under way at a time. It ends with reply(), at once or much later; meanwhile
// further lines wait in the input buffer. A command that goes on after its function has returned is
// a Job.
#pragma once

#include "files.h"

#include <cstdint>
#include <iosched/sched.h>
#include <memory>
#include <string>
#include <string_view>

class Connection;

// The rest of a command that cannot be done at once. Owned by its connection, which alone destroys
// it: when the connection closes, or when the next command starts. A job never sees its own end
// inside a call that it makes: reply(), data(), info(), wantTurn() only fill buffers and set flags,
// and whatever can close the connection (settle(), flush()) runs after the job's callback has
// returned. Its destructor takes back all that can still call it: timers, registered children, AIO
// requests.
class Job {
public:
    virtual ~Job() = default;
    // Called from the loop once there is room for output, after Connection::wantTurn().
    virtual void turn() = 0;
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(int fd, uint32_t id);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    uint32_t id() const { return id_; }  // its owner id in the lock table
    bool closed() const { return fd_ < 0; }
    FileSet &files() { return files_; }

    // Parts of a reply; they only fill the buffer, and never close the connection.
    __attribute__((format(printf, 2, 3))) void info(const char *format, ...);  // "- text" line
    void data(const void *bytes, size_t count);                                // DATA block
    // The last line of the reply, "OK ..." or "ERR CODE ...": ends the command.
    __attribute__((format(printf, 2, 3))) void reply(const char *format, ...);

    // Hands the rest of the command to a job, whose first turn() comes soon.
    void start(std::unique_ptr<Job> job);
    // Asks for a turn in the next pass, or later if the client does not keep up with the output.
    void wantTurn();
    bool outputFull() const;

    // Reads no more; closes when the output is sent.
    void quit();
    // Sends a last line and closes: locks and opens go at once, the socket when the client has had
    // time to read it.
    void closeWith(const char *line);
    void close();

    void begin();  // registers with the loop and greets; once, by startConnection()

private:
    static void onInput(void *arg, int fd);
    static void onOutput(void *arg, int fd);
    static void onLinger(void *arg, int fd);
    static void onIdle(SchedTimer *timer);
    static void onTurn(DelayedCall *call);

    bool fillInput();
    bool takeLine(std::string *line);
    void serveLines();
    void append(std::string_view text);
    bool flush();
    void linger();
    bool finished();
    void settle();
    void watch(bool input, bool output);

    struct TurnCall : DelayedCall {
        Connection *connection;
        std::shared_ptr<Connection> keep;  // while queued: the record is part of the connection
    };

    int fd_;
    const uint32_t id_;
    FileSet files_;
    std::string input_, output_;
    size_t inputUsed_ = 0, outputSent_ = 0;  // what is done with, at the front of the buffers
    bool ended_ = false;       // the client has closed its half: nothing more will come
    bool quitting_ = false;    // the client has asked for the end, whatever it sends now
    bool busy_ = false;        // a command is under way
    bool serving_ = false;     // serveLines() is on the stack
    bool skipping_ = false;    // inside an over-long line
    bool lingering_ = false;   // closed for all but the last bytes of output
    bool turnWanted_ = false;  // wantTurn() waits for room
    bool inputOn_ = false, outputOn_ = false;  // registered with the loop
    std::unique_ptr<Job> job_;
    SchedTimer idle_{};
    TurnCall turn_{};
};

void startConnection(int fd);
size_t connectionCount();
void closeAllConnections(const char *line);
