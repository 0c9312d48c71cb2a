// Daemons and pseudo-terminals.

#include "procs/program.h"

#include <cstring>
#include <sys/ioctl.h>
#include <termios.h>
#include <vector>

extern "C" int __real_open(const char *path, int flags, ...),
    __wrap_open(const char *path, int flags, ...);

namespace {

// While this is not null, every open is noted and fails with ENOENT, but for this path, which opens
// the null device.
const char *onlyDevice = nullptr;
std::vector<std::string> tried;

}  // namespace

int __wrap_open(const char *path, int flags, ...) {
    if (onlyDevice == nullptr) return __real_open(path, flags, 0600);
    tried.emplace_back(path);
    if (tried.back() == onlyDevice) return __real_open("/dev/null", flags);
    errno = ENOENT;
    return -1;
}

// tests/examples/programs.sh looks at the daemon's session and its terminal.
TEST(Daemonify, EndsTheCallerWithItsExitHandlers) {
    static PlainPipe report;
    EXPECT_CHILD_OK([] {
        std::atexit([] { (void)!::write(report.writeEnd, "exit handler\n", 13); });
        const pid_t caller = ::getpid();
        EXPECT_EQ(daemonify(), 0);
        while (::getppid() == caller)  // nothing tells of a parent's end
            (void)::poll(nullptr, 0, 1);
        (void)!::write(report.writeEnd, "daemon\n", 7);
    });
    EXPECT_EQ(report.rest(), "exit handler\ndaemon\n");
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
                 {"", 1 + 352, "/dev/ptyZf", ""},
                 {"/dev/ptmx", 1 + 352, "/dev/ptyZf", ""}};
    for (const auto &row : kRows) {
        const int before = countOpenDescriptors();
        char name[20] = "";
        tried.clear();
        onlyDevice = row.present;
        const int master = allocPty(name);
        EXPECT_TRUE((master == -1 && errno == ENOENT) == (*row.slave == '\0'));
        onlyDevice = nullptr;
        EXPECT_EQ(tried[0] + tried[1], "/dev/ptmx/dev/ptyp0");
        EXPECT_EQ(tried.size(), row.tried);
        EXPECT_EQ(tried.back(), row.last);
        EXPECT_STREQ(name, row.slave);
        ::close(master);
        EXPECT_EQ(countOpenDescriptors(), before);
    }
}

TEST(Pty, SlaveBecomesTheTerminalWithModesAndSizeOrNothingIsLeftOpen) {
    char name[20], second[20];
    const int master = allocPty(name);
    EXPECT_GE(allocPty(second), 0);
    // Every mode that is to be cleared is set, and what is to be set is not.
    termios modes = {};
    ASSERT_EQ(::tcgetattr(master, &modes), 0);
    modes.c_iflag = INLCR | IXOFF;
    modes.c_oflag = OLCUC;
    modes.c_cflag = CS7 | CREAD | CSTOPB;
    modes.c_lflag = NOFLSH;
    std::memset(modes.c_cc, 'x', sizeof modes.c_cc);
    ASSERT_EQ(::cfsetspeed(&modes, B38400), 0);
    ASSERT_EQ(::tcsetattr(master, TCSANOW, &modes), 0);
    EXPECT_CHILD_OK([&] {
        EXPECT_GT(disassociate(), 0);
        const int before = countOpenDescriptors();
        const auto expectError = [](int error, const char *slave) {
            EXPECT_EQ(setupSlave(slave, 80, 24), -1);
            EXPECT_EQ(errno, error);
        };
        expectError(ENOENT, "/dev/pts/no-such-slave");
        expectError(ENOTTY, "/dev/null");
        const int slave = setupSlave(name, 80, 24);
        EXPECT_EQ(::tcgetsid(slave), ::getpid());
        expectError(EPERM, second);  // it has a terminal already
        EXPECT_EQ(countOpenDescriptors(), before + 1);
        winsize size = {};
        EXPECT_EQ(::ioctl(slave, TIOCGWINSZ, &size), 0);
        EXPECT_TRUE(size.ws_row == 24 && size.ws_col == 80 && size.ws_xpixel + size.ws_ypixel == 0);
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
