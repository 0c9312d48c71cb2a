// Failures of system calls that real ones cannot be made to fail at without harm to the machine.
// The test program links syscall_wrap.cpp with -Wl,--wrap=fork,--wrap=open.
#pragma once

#include <string>
#include <vector>

// The next fork fails with EAGAIN.
extern bool failNextFork;

// Every fork returns in the parent when the child has ended already.
extern bool forksAwaitTheEnd;

// Stands for the directory of devices while it exists: every open is noted and fails with ENOENT,
// but for one path, which opens the null device.
class FakeDevices {
public:
    explicit FakeDevices(std::string present);
    ~FakeDevices();
    FakeDevices(const FakeDevices &) = delete;
    FakeDevices &operator=(const FakeDevices &) = delete;

    std::string present;
    std::vector<std::string> tried;
};
