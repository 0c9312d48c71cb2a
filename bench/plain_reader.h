// Messages by an input callback that reads: for the libraries without asynchronous requests.
#pragma once

#include <unistd.h>

namespace loop {

struct Reader : Input {
    char buffer[64];
    long length;
};

template <auto Call, bool Anew>
void read(Reader &reader, int fd) {
    constexpr auto readAndCall = [](Input &input) {
        auto &ready = static_cast<Reader &>(input);
        ready.length = ::read(ready.fd, ready.buffer, sizeof ready.buffer);
        Call(ready);
    };
    init<readAndCall>(reader, fd);
    add(reader);
}

}  // namespace loop
