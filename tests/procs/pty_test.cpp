#include "procs/program.h"
#include "procs/syscall_wrap.h"
#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <cerrno>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

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
    ASSERT_GE(fd, 0);
    termios modes = {};
    ASSERT_EQ(::tcgetattr(fd, &modes), 0);
    modes.c_iflag = INLCR | IXOFF;
    modes.c_oflag = OLCUC;
    modes.c_cflag = CS7 | CREAD | CSTOPB;
    modes.c_lflag = NOFLSH;
    modes.c_cc[VINTR] = modes.c_cc[VERASE] = modes.c_cc[VKILL] = modes.c_cc[VEOF] = 'x';
    modes.c_cc[VEOL2] = 'y';
    modes.c_cc[VQUIT] = 'z';
    ASSERT_EQ(::cfsetspeed(&modes, B38400), 0);
    ASSERT_EQ(::tcsetattr(fd, TCSANOW, &modes), 0);
    ::close(fd);
}

}  // namespace

TEST(Pty, OlderNamesAreTriedInTheirOrder) {
    char name[20] = "as it was";
    {
        FakeDevices devices("/dev/ptyq3");
        const int master = allocPty(name);
        EXPECT_GE(master, 0);
        ::close(master);
        EXPECT_STREQ(name, "/dev/ttyq3");
        EXPECT_EQ(devices.tried.size(), 1u + 16 + 4);
        EXPECT_EQ(devices.tried[0], "/dev/ptmx");
        EXPECT_EQ(devices.tried[1], "/dev/ptyp0");
    }
    // The multiplexer opens, as the null device, and knows no such request.
    for (const char *present : {"", "/dev/ptmx"}) {
        const FakeDevices devices(present);
        const int before = countOpenDescriptors();
        EXPECT_EQ(allocPty(name), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(devices.tried.size(), 1u + 352);
        EXPECT_EQ(devices.tried.back(), "/dev/ptyZf");
        EXPECT_EQ(countOpenDescriptors(), before);
    }
}

TEST(Pty, SlaveBecomesTheTerminalWithModesAndSize) {
    const Pty pty;
    setOddModes(pty.name);
    EXPECT_CHILD_OK([&] {
        EXPECT_GT(disassociate(), 0);
        const int slave = setupSlave(pty.name, 80, 24);
        EXPECT_GE(slave, 0);
        EXPECT_EQ(::tcgetsid(slave), ::getpid());
        winsize size = {};
        EXPECT_EQ(::ioctl(slave, TIOCGWINSZ, &size), 0);
        EXPECT_TRUE(size.ws_row == 24 && size.ws_col == 80 && size.ws_xpixel + size.ws_ypixel == 0);
        termios modes = {};
        EXPECT_EQ(::tcgetattr(slave, &modes), 0);
        EXPECT_EQ(modes.c_iflag, 0x502u);
        EXPECT_EQ(modes.c_oflag, 0x1805u);
        EXPECT_EQ(modes.c_cflag, 0x4b0u | B9600);
        EXPECT_EQ(modes.c_lflag, 0x8a1bu);
        EXPECT_EQ(::cfgetispeed(&modes), speed_t{B9600});
        EXPECT_EQ(modes.c_cc[VINTR], 0x03);
        EXPECT_EQ(modes.c_cc[VERASE], 0x7f);
        EXPECT_EQ(modes.c_cc[VKILL], 0x15);
        EXPECT_EQ(modes.c_cc[VEOF], 0x04);
        EXPECT_EQ(modes.c_cc[VEOL2], 0);
        EXPECT_EQ(modes.c_cc[VQUIT], 'z');  // not ours to set
    });
}

TEST(Pty, FailedSetupLeavesNothingOpenAndNamesTheFailure) {
    const Pty first, second;
    const ScratchDir dir;
    writeFile(dir / "file", "");
    EXPECT_CHILD_OK([&] {
        EXPECT_GT(disassociate(), 0);
        const int before = countOpenDescriptors();
        EXPECT_EQ(setupSlave("/dev/pts/no-such-slave", 80, 24), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(setupSlave((dir / "file").c_str(), 80, 24), -1);
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_EQ(countOpenDescriptors(), before);
        EXPECT_GE(setupSlave(first.name, 80, 24), 0);
        EXPECT_EQ(setupSlave(second.name, 80, 24), -1);  // has a terminal already
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(countOpenDescriptors(), before + 1);
    });
}
