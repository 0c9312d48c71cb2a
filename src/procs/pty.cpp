// Pseudo-terminals: finding a free master, and making its slave a controlling terminal.

#include "iosched/procs.h"

#include "support/guards.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

constexpr size_t kPtyNameBytes = 20;  // "/dev/pts/", ten digits, NUL: what callers have room for

constexpr char kPtyLetters[] = "pqrstuvwxyzPQRSTUVWXYZ";
constexpr char kPtyDigits[] = "0123456789abcdef";
constexpr size_t kLetterAt = 8, kDigitAt = 9;

// The older name of the master being tried.
char ptyname[] = "/dev/ptyXX";
static_assert(sizeof ptyname == 11);

// Opens the multiplexer and unlocks the slave it assigned. -1 on failure, which only means that the
// older names are to be tried.
int openMultiplexer(char *name) {
    FdGuard master(::open("/dev/ptmx", O_RDWR | O_NOCTTY));
    if (master.get() == -1) return -1;
    unsigned int number = 0;
    if (::ioctl(master.get(), TIOCGPTN, &number) == -1) return -1;
    (void)std::snprintf(name, kPtyNameBytes, "/dev/pts/%u", number);
    int unlocked = 0;
    if (::ioctl(master.get(), TIOCSPTLCK, &unlocked) == -1) return -1;
    return master.release();
}

// The first of the older masters that can be opened. -1 with the errno of the last one tried.
int openOldMaster(char *name) {
    for (const char *letter = kPtyLetters; *letter != '\0'; ++letter) {
        for (const char *digit = kPtyDigits; *digit != '\0'; ++digit) {
            ptyname[kLetterAt] = *letter;
            ptyname[kDigitAt] = *digit;
            const int master = ::open(ptyname, O_RDWR | O_NOCTTY);
            if (master == -1) continue;
            (void)std::snprintf(name, kPtyNameBytes, "/dev/tty%c%c", *letter, *digit);
            return master;
        }
    }
    return -1;
}

constexpr tcflag_t kInputModes = BRKINT | ICRNL | IXON;
constexpr tcflag_t kOutputModes = OPOST | ONLCR | TAB3;
constexpr tcflag_t kControlModes = CS8 | CREAD | HUPCL;
constexpr tcflag_t kLocalModes = ISIG | ICANON | ECHO | ECHOE | ECHOCTL | ECHOKE | IEXTEN;
static_assert(kInputModes == 0x502 && kOutputModes == 0x1805);
static_assert(kControlModes == 0x4b0 && kLocalModes == 0x8a1b);

// What is not named here stays as the driver has it.
int setLineModes(int slave) {
    termios modes = {};
    if (::tcgetattr(slave, &modes) == -1) return -1;
    modes.c_iflag = kInputModes;
    modes.c_oflag = kOutputModes;
    modes.c_cflag = kControlModes;
    modes.c_lflag = kLocalModes;
    modes.c_cc[VINTR] = 0x03;   // control-C
    modes.c_cc[VERASE] = 0x7f;  // DEL
    modes.c_cc[VKILL] = 0x15;   // control-U
    modes.c_cc[VEOF] = 0x04;    // control-D
    modes.c_cc[VEOL2] = 0;      // disabled
    // After the control modes, which hold the speed as well.
    if (::cfsetospeed(&modes, B9600) == -1 || ::cfsetispeed(&modes, B9600) == -1) return -1;
    return ::tcsetattr(slave, TCSANOW, &modes);
}

}  // namespace

int allocPty(char *name) {
    const int master = openMultiplexer(name);
    return master != -1 ? master : openOldMaster(name);
}

int setupSlave(const char *name, int columns, int rows) {
    // Nothing here takes the terminal away from others who have it open: this system cannot.
    FdGuard slave(::open(name, O_RDWR));
    if (slave.get() == -1) return -1;
    if (::ioctl(slave.get(), TIOCSCTTY, 0) == -1) return -1;
    if (setLineModes(slave.get()) == -1) return -1;
    const winsize size{static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0,
                       0};
    if (::ioctl(slave.get(), TIOCSWINSZ, &size) == -1) return -1;
    return slave.release();
}
