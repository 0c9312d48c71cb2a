// Daemons and pseudo-terminals.

#include "procs/program.h"
#include "support/in_child.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <termios.h>
#include <vector>

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
}

namespace {

// While this is not null, every open is noted and fails with ENOENT, but for this path, which opens
// the null device.
const char *onlyDevice = nullptr;
std::vector<std::string> tried;

struct Pty {
    Pty() : master(allocPty(name)) { EXPECT_GE(master, 0); }
    ~Pty() { ::close(master); }
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;

    char name[20] = {};
    int master;
};

// Sets every mode that setupSlave is to clear, and clears what it is to set.
void setOddModes(const char *name) {
    const int fd = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios modes = {};
    ASSERT_EQ(::tcgetattr(fd, &modes), 0);
    modes.c_iflag = INLCR | IXOFF;
    modes.c_oflag = OLCUC;
    modes.c_cflag = CS7 | CREAD | CSTOPB;
    modes.c_lflag = NOFLSH;
    std::memset(modes.c_cc, 'x', sizeof modes.c_cc);
    ASSERT_EQ(::cfsetspeed(&modes, B38400), 0);
    ASSERT_EQ(::tcsetattr(fd, TCSANOW, &modes), 0);
    ::close(fd);
}

}  // namespace

int __wrap_open(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (onlyDevice == nullptr) return __real_open(path, flags, mode);
    tried.emplace_back(path);
    if (tried.back() == onlyDevice) return __real_open("/dev/null", flags, mode);
    errno = ENOENT;
    return -1;
}

TEST(Daemonify, LeavesADaemonAndEndsTheCallerWithItsExitHandlers) {
    // Orphans come to this process, so that the daemon's end is seen too.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    PlainPipe report;
    static int reportFd;
    reportFd = report.writeEnd();
    EXPECT_CHILD_OK([] {
        std::atexit([] { (void)!::write(reportFd, "exit handler\n", 13); });
        const pid_t caller = ::getpid();
        EXPECT_EQ(daemonify(), 0);
        while (::getppid() == caller)  // nothing tells of a parent's end
            (void)::poll(nullptr, 0, 1);
        EXPECT_NE(::getpid(), caller);
        EXPECT_EQ(::getsid(0), ::getpid());
        EXPECT_EQ(::open("/dev/tty", O_RDWR | O_CLOEXEC), -1);
        EXPECT_EQ(errno, ENXIO);
        (void)!::write(reportFd, "daemon\n", 7);
    });
    EXPECT_EQ(report.rest(), "exit handler\ndaemon\n");
    int daemonStatus = -1;
    EXPECT_GT(::wait(&daemonStatus), 0);
    EXPECT_EQ(daemonStatus, 0);
}

TEST(Daemonify, FailuresLeaveTheCallerInItsSession) {
    const pid_t session = ::getsid(0);
    failNextFork = true;
    EXPECT_EQ(daemonify(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(::getsid(0), session);
    EXPECT_CHILD_OK([] {
        EXPECT_EQ(disassociate(), ::getpid());
        EXPECT_EQ(::getsid(0), ::getpid());
        EXPECT_EQ(disassociate(), -1);  // leads a process group
        EXPECT_EQ(errno, EPERM);
    });
}

// The multiplexer is not there, or opens as the null device, which knows no such request.
TEST(Pty, OlderNamesAreTriedInTheirOrder) {
    const struct {
        const char *present;
        size_t tried;
        const char *last, *slave;
    } kRows[] = {{"/dev/ptyq3", 1 + 16 + 4, "/dev/ptyq3", "/dev/ttyq3"},
                 {"", 1 + 352, "/dev/ptyZf", nullptr},
                 {"/dev/ptmx", 1 + 352, "/dev/ptyZf", nullptr}};
    for (const auto &row : kRows) {
        const int before = countOpenDescriptors();
        char name[20];
        tried.clear();
        onlyDevice = row.present;
        const int master = allocPty(name);
        onlyDevice = nullptr;
        EXPECT_EQ(tried[0] + tried[1], "/dev/ptmx/dev/ptyp0");
        EXPECT_EQ(tried.size(), row.tried);
        EXPECT_EQ(tried.back(), row.last);
        if (row.slave != nullptr)
            EXPECT_STREQ(name, row.slave);
        else
            EXPECT_TRUE(master == -1 && errno == ENOENT);
        ::close(master);
        EXPECT_EQ(countOpenDescriptors(), before);
    }
}

TEST(Pty, SlaveBecomesTheTerminalWithModesAndSizeOrNothingIsLeftOpen) {
    const Pty pty, second;
    setOddModes(pty.name);
    EXPECT_CHILD_OK([&] {
        EXPECT_GT(disassociate(), 0);
        const int before = countOpenDescriptors();
        EXPECT_EQ(setupSlave("/dev/pts/no-such-slave", 80, 24), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(setupSlave("/dev/null", 80, 24), -1);
        EXPECT_EQ(errno, ENOTTY);
        const int slave = setupSlave(pty.name, 80, 24);
        EXPECT_EQ(::tcgetsid(slave), ::getpid());
        EXPECT_EQ(setupSlave(second.name, 80, 24), -1);
        EXPECT_EQ(errno, EPERM) << "has a terminal already";
        EXPECT_EQ(countOpenDescriptors(), before + 1);
        winsize size = {};
        EXPECT_EQ(::ioctl(slave, TIOCGWINSZ, &size), 0);
        EXPECT_TRUE(size.ws_row == 24 && size.ws_col == 80 && size.ws_xpixel + size.ws_ypixel == 0);
        termios modes = {};
        EXPECT_EQ(::tcgetattr(slave, &modes), 0);
        EXPECT_EQ((std::vector{modes.c_iflag, modes.c_oflag, modes.c_cflag, modes.c_lflag}),
                  (std::vector{0x502u, 0x1805u, 0x4b0u | B9600, 0x8a1bu}));
        EXPECT_EQ(::cfgetispeed(&modes), speed_t{B9600});
        std::string characters;  // VQUIT is not ours to set
        for (const int which : {VINTR, VERASE, VKILL, VEOF, VEOL2, VQUIT})
            characters += static_cast<char>(modes.c_cc[which]);
        EXPECT_EQ(characters, std::string("\x03\x7f\x15\x04\0x", 6));
    });
}
