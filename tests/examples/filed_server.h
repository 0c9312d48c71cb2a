// A filed of the test's own, and clients that talk to it.
//
// Everything waits for events, with a deadline: a reply, the end of a connection, the end of a
// process. What misses the deadline fails the test and reads as "<no reply>".
#pragma once

#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fnmatch.h>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

constexpr int kDeadlineMs = 30000;

inline bool readable(int fd, int timeoutMs) {
    pollfd waiter{fd, POLLIN, 0};
    return ::poll(&waiter, 1, timeoutMs) == 1;
}

// Waits until a process, which need not be ours, has ended.
inline bool waitUntilGone(pid_t pid) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) return errno == ESRCH;
    const bool gone = readable(fd, kDeadlineMs);
    ::close(fd);
    return gone;
}

inline void asItIs() {}

// As on a kernel that is older than openat2().
inline void withoutOpenat2() {
    sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter{std::size(steps), steps};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        ::_exit(126);
}

inline int startProgram(const std::vector<std::string> &words, int outputFd,
                        void (*prepare)() = asItIs) {
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);  // also when the test crashes
    ::dup2(outputFd, STDOUT_FILENO);
    prepare();
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

// To the user that a server started by root becomes.
inline void giveAway(const std::string &path) {
    if (::geteuid() != 0) return;
    const passwd *nobody = ::getpwnam("nobody");
    EXPECT_EQ(::chown(path.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
}

class FiledServer {
public:
    explicit FiledServer(const std::vector<std::string> &options = {}, void (*prepare)() = asItIs) {
        (void)::mkdir(root().c_str(), 0700);
        std::vector<std::string> words = {
            FILED_PROGRAM, "-p", "0",       "-r", root(),          "-a", arena(), "-l",
            dir_ / "log",  "-P", pidFile(), "-A", ARENACTL_PROGRAM};
        if (::geteuid() == 0) words.insert(words.end(), {"-u", "nobody"});
        words.insert(words.end(), options.begin(), options.end());
        giveAway(dir_.path());
        giveAway(root());
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) std::abort();
        pid_ = startProgram(words, out[1], prepare);
        ::close(out[1]);
        port_ = readPort(out[0]);
        ::close(out[0]);
    }
    ~FiledServer() {
        if (pid_ > 0) (void)stop(SIGKILL);
        if (::testing::Test::HasFailure()) std::fprintf(stderr, "%s", log().c_str());
    }
    FiledServer(const FiledServer &) = delete;
    FiledServer &operator=(const FiledServer &) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string root() const { return dir_ / "root"; }
    std::string arena() const { return dir_ / "arena"; }
    std::string pidFile() const { return dir_ / "pid"; }
    std::string path(const std::string &name) const { return root() + "/" + name; }
    void write(const std::string &name, const std::string &bytes) const {
        writeFile(path(name), bytes);
        giveAway(path(name));
    }
    std::string log() const {
        std::ifstream file(dir_ / "log");
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    // Ends the server and returns its wait status.
    int stop(int sig = SIGTERM) {
        (void)::kill(pid_, sig);
        return waitForEnd();
    }
    int waitForEnd() {
        const int status = waitForChild(pid_, kDeadlineMs);
        pid_ = -1;
        return status;
    }

private:
    static int readPort(int fd) {
        std::string line;
        for (char byte; readable(fd, kDeadlineMs) && ::read(fd, &byte, 1) == 1 && byte != '\n';)
            line += byte;
        EXPECT_NE(line.find("127.0.0.1:"), std::string::npos) << line;
        return std::atoi(line.substr(line.rfind(':') + 1).c_str());
    }

    ScratchDir dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

class FiledClient {
public:
    explicit FiledClient(const FiledServer &server) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(server.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        greeting = line();
        (void)std::sscanf(greeting.c_str(), "OK filed ready, worker=%d master=%d", &worker,
                          &master);
    }
    // One that a worker other than this serves.
    FiledClient(const FiledServer &server, pid_t than) : FiledClient(server) {
        while (worker == than && !::testing::Test::HasFailure())
            *this = FiledClient(server);
    }
    ~FiledClient() { close(); }
    FiledClient(FiledClient &&other) noexcept { *this = std::move(other); }
    FiledClient &operator=(FiledClient &&other) noexcept {
        std::swap(fd_, other.fd_);
        std::swap(buffer_, other.buffer_);
        std::swap(greeting, other.greeting);
        std::swap(worker, other.worker);
        std::swap(master, other.master);
        return *this;
    }

    void send(const std::string &bytes) const {
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::string line() {
        size_t end = 0;
        while ((end = buffer_.find('\n')) == std::string::npos)
            if (!fill()) return "<no reply>";
        return take(end);
    }
    std::string data() {  // of one DATA block
        const size_t count = std::stoul(line().substr(5));
        while (buffer_.size() < count + 1)
            if (!fill()) return "<no data>";
        return take(count);
    }
    std::string ask(const std::string &request) {  // the last line of the reply
        send(request + "\n");
        std::string last = line();
        while (last.starts_with("- "))
            last = line();
        return last;
    }

    bool quiet() const { return buffer_.empty() && !readable(fd_, 0); }
    bool atEnd() { return buffer_.empty() && !fill() && ended_; }
    void halfClose() const { (void)::shutdown(fd_, SHUT_WR); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void reset() {  // as a crashed client's system does
        const linger abort{1, 0};
        (void)::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        close();
    }

    std::string greeting;
    pid_t worker = 0, master = 0;  // that serves this connection, and its parent

private:
    bool fill() {
        char bytes[65536];
        if (!readable(fd_, kDeadlineMs)) return false;
        const ssize_t got = ::recv(fd_, bytes, sizeof bytes, 0);
        ended_ = got == 0 || (got < 0 && errno == ECONNRESET);
        if (got > 0) buffer_.append(bytes, static_cast<size_t>(got));
        return got > 0;
    }
    std::string take(size_t count) {
        const std::string bytes = buffer_.substr(0, count);
        buffer_.erase(0, count + 1);
        return bytes;
    }

    int fd_ = -1;
    bool ended_ = false;
    std::string buffer_;
};

// Plays a transcript on connections that are numbered and made when they first appear:
//
//   2! 1         2 is to be served by another worker than 1
//   1> request => reply    is sent, and what comes next is the reply; * stands for anything, %1 for the
//                process id of 1's worker, and lines of information ("- ...") are skipped unless one
//                is asked for. Each of the two also alone: "1> request", "1< reply"
//   1? request => reply    the same again and again until it is the reply
//   1~           nothing has come;   1$  the connection is broken off;   1.  the server has ended it
class Transcript {
public:
    explicit Transcript(const FiledServer &server) : server_(server) {}

    void play(const std::string &script) {
        std::istringstream lines(script);
        for (std::string line; std::getline(lines, line);) {
            line.erase(0, line.find_first_not_of(' '));
            if (line.empty()) continue;
            SCOPED_TRACE(line);
            const size_t arrow = line.find(" => ");
            if (arrow != line.npos) {
                step(line[0], line[1], withPids(line.substr(3, arrow - 3)));
                line = line.substr(0, 1) + "<" + line.substr(arrow + 3);
            }
            step(line[0], line[1], withPids(line.substr(std::min(line.size(), size_t{3}))));
        }
    }
    FiledClient &operator[](char name) { return clients_.try_emplace(name, server_).first->second; }

private:
    void step(char name, char what, const std::string &text) {
        if (what == '!')
            return (void)clients_.emplace(name, FiledClient(server_, (*this)[text[0]].worker));
        FiledClient &client = (*this)[name];
        switch (what) {
        case '>':
            return client.send(text + '\n');
        case '?':
            repeated_ = text;
            return;
        case '<':
            return expect(client, text);
        case '~':
            EXPECT_TRUE(client.quiet());
            return;
        case '$':
            return client.reset();
        case '.':
            EXPECT_TRUE(client.atEnd());
            return;
        default:
            ADD_FAILURE() << "no such step";
        }
    }
    void expect(FiledClient &client, const std::string &pattern) {
        const std::string request = std::exchange(repeated_, "");
        std::string reply;
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
        bool good = false;
        do {
            if (!request.empty()) client.send(request + '\n');
            do {
                reply = client.line();
                good = ::fnmatch(pattern.c_str(), reply.c_str(), 0) == 0;
            } while (!good && reply.starts_with("- "));
        } while (!good && !request.empty() && std::chrono::steady_clock::now() < until);
        EXPECT_TRUE(good) << reply;
    }
    std::string withPids(std::string text) {
        for (size_t at; (at = text.find('%')) != std::string::npos;)
            text.replace(at, 2, std::to_string((*this)[text[at + 1]].worker));
        return text;
    }

    const FiledServer &server_;
    std::map<char, FiledClient> clients_;
    std::string repeated_;
};

inline void play(const FiledServer &server, const std::string &script) {
    Transcript(server).play(script);
}
