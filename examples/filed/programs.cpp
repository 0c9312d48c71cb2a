// RUN and SYSTEM: programs for clients, while the loop serves everybody else. RUN streams the
// output, SYSTEM throws it away; both reply when the program is done.
//
// Off unless the server was started with -R: they hand the server's own rights to whoever connects.
//
// With RUN two things have to come before the command has ended, in either order: the end of the
// output and the end of the child. What the child leaves running in its process group is killed, or
// else it could keep the pipe open, and the client waiting, for as long as it likes.

#include "request.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iosched/aio.h>
#include <iosched/procs.h>
#include <unistd.h>

namespace {

constexpr int64_t kRunLimitMs = 60'000;
constexpr int64_t kSystemLimitMs = 10'000;
constexpr int kMaxPrograms = 8;      // of each worker at a time
constexpr int kOverdueStatus = 124;  // as timeout(1) reports it

int programs;  // running now

class ProgramJob : public Job {
public:
    ProgramJob(Connection &connection, int64_t limitMs) : connection_(connection) {
        programs++;
        read_.buffer = buffer_;
        read_.length = sizeof buffer_;
        read_.callback = onOutput;
        read_.userData = this;
        limit_.func = onLimit;
        limit_.arg = this;
        limit_.interval = limitMs;
    }

    // Also when the client has gone in the middle: then the program goes too.
    ~ProgramJob() override {
        programs--;
        (void)stopTimer(&limit_);
        AIOCancelRead(&read_);
        if (pipe_ >= 0) (void)close(pipe_);
        if (pid_ == 0) return;
        (void)registerChild(pid_, nullptr, nullptr);  // the library reaps it all the same
        killProgram();
    }

    // Starts the program, with its output on the way to the client or to nowhere.
    bool begin(const char *command, bool streamed);
    void turn() override;

private:
    static int onOutput(AIORequest *request);
    static void onEnd(void *arg, const ChildStatus *status);
    static void onLimit(SchedTimer *timer);
    pid_t startShell(const char *command, int outputFd) const;
    void finish();

    // The group, and the child by its own number in case it has not made the group yet. Not once it
    // is reaped: 0 would mean the server's own group.
    void killProgram() const {
        (void)kill(pid_, SIGKILL);
        (void)kill(-pid_, SIGKILL);
    }

    Connection &connection_;  // owns this job
    pid_t pid_ = 0;           // 0 = none, or reaped
    int pipe_ = -1;           // the program's output
    bool outputEnded_ = false;
    bool overdue_ = false;  // killed when its time was over
    ChildStatus status_{};
    AIORequest read_{};
    SchedTimer limit_{};
    char buffer_[16 * 1024];
};

pid_t ProgramJob::startShell(const char *command, int outputFd) const {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    char shell[] = "sh", dashC[] = "-c";
    char *const argv[] = {shell, dashC, const_cast<char *>(command), nullptr};
    SpawnOptions options{};
    options.flags =
        SPAWN_EXTFLAGS | SPAWN_STDIN | SPAWN_STDOUT | SPAWN_STDERR | SPAWN_CHDIR | SPAWN_ARGV;
    options.extFlags = SPAWN_EXT_SETPGRP;
    options.stdinFd = null;
    options.stdoutFd = options.stderrFd = outputFd < 0 ? null : outputFd;
    options.directory = settings.root;
    options.argv = argv;
    const pid_t pid = spawnProcess(&options, "/bin/sh");
    const int saved = errno;
    (void)close(null);
    errno = saved;
    return pid;
}

bool ProgramJob::begin(const char *command, bool streamed) {
    int writeEnd = -1;
    outputEnded_ = !streamed;
    if (streamed) {
        if (AIOPipe(&pipe_, &writeEnd, AIO_PIPE_NONBLOCK_READ) != 0) return false;
        // Neither end may reach another program; the copies on its descriptors 1 and 2 lose the
        // mark.
        (void)fcntl(pipe_, F_SETFD, FD_CLOEXEC);
        (void)fcntl(writeEnd, F_SETFD, FD_CLOEXEC);
    }
    const pid_t pid = startShell(command, writeEnd);
    const int saved = errno;
    if (streamed) (void)close(writeEnd);  // now the program's only: its end is the output's end
    errno = saved;
    if (pid < 0) return false;
    pid_ = pid;
    (void)registerChild(pid_, onEnd, this);
    startTimer(&limit_);
    return true;
}

void ProgramJob::turn() {
    read_.fd = pipe_;
    if (outputEnded_ || AIORead(&read_) == 0 || errno == EALREADY) return;
    outputEnded_ = true;  // for all that the client will see of it
    if (pid_ != 0) killProgram();
    finish();
}

// Non-zero goes on reading. A client that does not keep up stops the reading, and with the pipe
// full that stops the program.
int ProgramJob::onOutput(AIORequest *request) {
    auto *job = static_cast<ProgramJob *>(request->userData);
    if (request->error == EINTR) return 1;
    if (request->error != 0 || request->transferred == 0) {
        job->outputEnded_ = true;
        job->finish();
        return 0;
    }
    job->connection_.data(request->buffer, static_cast<size_t>(request->transferred));
    if (!job->connection_.outputFull()) return 1;
    job->connection_.wantTurn();
    return 0;
}

void ProgramJob::onEnd(void *arg, const ChildStatus *status) {
    auto *job = static_cast<ProgramJob *>(arg);
    if (status->stopped) {
        (void)registerChild(status->pid, onEnd, arg);
        return;
    }
    job->status_ = *status;
    (void)kill(-status->pid, SIGKILL);
    job->pid_ = 0;
    job->finish();
}

void ProgramJob::onLimit(SchedTimer *timer) {
    auto *job = static_cast<ProgramJob *>(timer->arg);
    if (job->pid_ == 0) return;
    job->overdue_ = true;
    job->killProgram();
}

void ProgramJob::finish() {
    if (!outputEnded_ || pid_ != 0) return;
    (void)stopTimer(&limit_);
    if (overdue_)
        connection_.reply("OK exit %d", kOverdueStatus);
    else if (status_.termSignal != 0)
        connection_.reply("OK signal %d", status_.termSignal);
    else
        connection_.reply("OK exit %d", status_.exitCode);
}

void runProgram(Connection &connection, Words &words, bool streamed) {
    if (!settings.allowRun) return connection.reply("ERR OFF this server was started without -R");
    if (words.empty()) return connection.reply("ERR SYNTAX give a command line");
    if (programs >= kMaxPrograms)
        return connection.reply("ERR LIMIT %d programs are running already", programs);
    auto job = std::make_unique<ProgramJob>(connection, streamed ? kRunLimitMs : kSystemLimitMs);
    if (!job->begin(std::string(words.rest()).c_str(), streamed))
        return connection.reply("ERR SYSTEM cannot start it: %s", strerror(errno));
    connection.start(std::move(job));
}

}  // namespace

void doRun(Connection &connection, Words &words) {
    runProgram(connection, words, true);
}

void doSystem(Connection &connection, Words &words) {
    runProgram(connection, words, false);
}
