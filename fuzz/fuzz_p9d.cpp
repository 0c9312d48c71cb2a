// A client's bytes to a session of p9d, framed and not: it takes what is a request and refuses the
// rest, every answer is a whole message of the agreed size, and no descriptor stays behind.

#include "fuzz_input.h"
#include "p9d/identity.h"
#include "p9d/p9d.h"
#include "p9d/session.h"
#include "prefork/share.h"

#include <syslog.h>

int rootFd = -1;
void connectionEnded() {}

namespace {

int lowestFreeDescriptor() {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    (void)::close(fd);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    (void)::setlogmask(LOG_UPTO(LOG_EMERG));  // full tables are the rule here
    static const FuzzDirectory directory;
    static const bool entered = (rootFd = directory.open()) >= 0;
    require(entered, "the directory can be served");
    actAs(0, 0);  // the last session may have been somebody else's
    directory.empty();
    FuzzArena arena(65536);
    require(AllocateSharedFileLockTable(arena.get(), "locks", 1, 16, 64, &share.table) == 0,
            "a table can be made");
    const int before = lowestFreeDescriptor();
    FuzzInput input(data, size);
    {
        Session session(1);
        Outbox out;
        const char version[] = {100, 1,   0,   0,   16,  0,   0,   8,  0,
                                '9', 'P', '2', '0', '0', '0', '.', 'L'};
        const char attach[] = "\x68\1\0\1\0\0\0\xff\xff\xff\xff\0\0\0\0\0\0\0";
        require(session.answer({version, sizeof version}, &out) &&
                    session.answer({attach, sizeof attach}, &out),
                "a session can be begun");
        for (int request = 0; request < 100 && !input.empty(); ++request) {
            std::string bytes(input.take<uint8_t>() % 64, '\0');
            for (char &byte : bytes)
                byte = input.take<char>();
            const size_t start = out.end();
            if (!session.answer(bytes, &out)) {
                require(out.end() == start, "what is no request gets no answer");
                continue;
            }
            uint32_t length = 0;
            std::memcpy(&length, out.at(start), sizeof length);
            require(length == out.end() - start && length <= session.messageSize(),
                    "an answer is one whole message");
        }
    }
    require(lowestFreeDescriptor() == before, "no descriptor is left");
    require(FreeSharedFileLockTable(share.table) == 0, "the table can be given back");
    return 0;
}
