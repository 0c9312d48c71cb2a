// What one client sees: files and their locks, lines, limits, waits, back-pressure, programs.
#include "filed_server.h"

namespace {

const std::vector<std::string> kOneWorker = {"-w", "1"};
const std::vector<std::string> kPrograms = {"-w", "1", "-R"};

TEST(Filed, OplocksAndShareModesHoldAcrossWorkers) {
    FiledServer server({"-w", "2"});
    server.write("f", "content");
    play(server, R"(
        2! 1
        1> OPEN read,oplock-batch f => OK 1 read,oplock-batch
        2> OPEN read f => ERR OPLOCK held by pid %1 (in use: read,oplock-batch)
        2> HOLDERS f => OK pid %1
        1> MODE 1 deny-write => OK
        2> HOLDERS f => OK nobody
        1> MODE 1 oplock-shared => ERR OPLOCK *
        2> OPEN write f => ERR DENIED in use: read,deny-write
        2> OPEN read f => OK 1 read,deny-write
        2> INFO f => - size 7
        2< OK opens 2, read,deny-write
        1$
        2? INFO f => OK opens 1, read)");
}

TEST(Filed, ReadsAndWritesRespectTheRangesOfOthers) {
    FiledServer server({"-w", "2"});
    server.write("f", std::string(1000, 'a'));
    play(server, R"(
        2! 1
        1> OPEN read,write f => OK 1 read,write
        2> OPEN read,write f => OK 1 read,write
        1> LOCK 1 exclusive 10 50 => OK
        2> LOCK 1 shared 59 1 => ERR LOCKED *
        1> LOCK 1 exclusive 0 -1 => ERR SELFLOCKED *
        2> TEST 1 read 0 1000 => OK 10 bytes free, what follows is locked
        2> READ 1 0 -1 => DATA 10
        2< aaaaaaaaaa
        2< OK 10 bytes, what follows is locked
        2> READ 1 12 10 => ERR LOCKED byte 12 is locked
        2> WRITE 1 8 xyz => ERR LOCKED byte 10 is locked
        1> WRITE 1 10 b\nb => OK 3 bytes
        1> UNLOCK 1 10 49 => ERR NOTLOCKED *
        1> UNLOCK 1 10 50 => OK
        2> READ 1 9 5 => DATA 5
        2< ab
        2< ba
        2< OK 5 bytes
        2> READ 1 9223372036854775807 -1 => OK 0 bytes
        2> LOCK 1 shared 0 0 => ERR RANGE *
        2> LOCK 1 shared -5 10 => ERR RANGE *
        2> LOCK 1 shared 9223372036854775807 2 => ERR RANGE *)");
}

TEST(Filed, AccessOpensAndConnectionsAreLimited) {
    FiledServer server({"-w", "1", "-c", "2"});
    server.write("f", "content");
    Transcript talk(server);
    talk.play(R"(
        1> OPEN read,max=1 f => OK 1 *
        1> OPEN read f => ERR DENIED *
        1> WRITE 1 0 x => ERR ACCESS *
        1> CLOSE 1 => OK
        2> RUN id => ERR OFF *
        3.
        2> QUIT => OK bye
        2.)");
    EXPECT_TRUE(talk['3'].greeting.starts_with("ERR LIMIT"));
    for (int i = 0; i < 16; i++)
        EXPECT_TRUE(talk['1'].ask("OPEN write,create g").starts_with("OK"));
    talk.play(R"(
        1> OPEN read f => ERR LIMIT *
        1> READ 5 0 1 => ERR ACCESS *)");
}

// On a kernel without openat2() a walk stands in, which follows no link at all.
TEST(Filed, NothingOutsideTheRootIsServed) {
    for (const bool walks : {false, true}) {
        FiledServer server(kOneWorker, walks ? withoutOpenat2 : asItIs);
        Transcript talk(server);
        EXPECT_GT(talk['1'].worker, 0);  // so the arena is there
        ASSERT_EQ(::mkdir(server.path("sub").c_str(), 0700), 0);
        giveAway(server.path("sub"));
        server.write("inside", "x");
        ASSERT_EQ(::symlink("/etc", server.path("etc").c_str()), 0);
        ASSERT_EQ(::symlink("../../arena", server.path("sub/out").c_str()), 0);
        ASSERT_EQ(::symlink("../inside", server.path("sub/in").c_str()), 0);
        ASSERT_EQ(::link(server.arena().c_str(), server.path("arena").c_str()), 0);
        ASSERT_EQ(::mkfifo(server.path("fifo").c_str(), 0666), 0);
        const std::filesystem::path table = "/proc/" + std::to_string(talk['1'].worker) + "/fd";
        const auto descriptors = [&] {
            return std::distance(begin(std::filesystem::directory_iterator(table)), {});
        };
        const auto before = descriptors();
        for (const char *path : {"/etc/passwd", "..", "../arena", "sub/../../arena", "etc/passwd",
                                 "sub/out", "arena", "fifo", "sub", ".", "missing/x", "inside/x"})
            EXPECT_TRUE(talk['1'].ask(std::string("OPEN read ") + path).starts_with("ERR FILE"))
                << path;
        EXPECT_TRUE(talk['1'].ask("OPEN write,create ../new").starts_with("ERR FILE"));
        EXPECT_NE(::access((server.root() + "/../new").c_str(), F_OK), 0);
        EXPECT_EQ(descriptors(), before);
        for (const char *path : {"sub/in", "sub/../inside"})
            EXPECT_EQ(talk['1'].ask(std::string("OPEN read ") + path).starts_with("OK"), !walks)
                << path;
        EXPECT_TRUE(talk['1'].ask("OPEN write,create sub//new").starts_with("OK"));
        EXPECT_EQ(fileSize(server.path("sub/new")), 0);
    }
}

TEST(Filed, BadLinesAreAnsweredAndTheConnectionGoesOn) {
    FiledServer server(kOneWorker);
    Transcript talk(server);
    EXPECT_TRUE(talk['1'].ask(std::string("ST\0ATS", 6)).starts_with("ERR LINE"));
    EXPECT_TRUE(talk['1'].ask(std::string(4097, 'x')).starts_with("ERR LINE longer"));
    talk['1'].send(std::string(1 << 20, 'x'));
    talk.play(R"(
        1< ERR LINE longer*
        2> STATS => OK *
        1> the end of it
        1> NONSENSE 1 2 => ERR VERB *
        1>
        1< ERR VERB *
        1> READ 1 0 10 => ERR HANDLE *
        1> OPEN read => ERR SYNTAX *)");
    EXPECT_TRUE(talk['1'].ask("stats\r").starts_with("OK workers 1"));
}

TEST(Filed, AHalfClosedConnectionGetsAllItsReplies) {
    FiledServer server(kPrograms);
    Transcript talk(server);
    talk['1'].send("SLEEP 20\nRUN echo one\nSTATS\nno end");
    talk['1'].halfClose();
    talk.play(R"(
        1< OK slept 20 ms
        1< DATA 4
        1< one
        1<
        1< OK exit 0
        1< OK workers*
        1< ERR LINE *
        1.)");
}

TEST(Filed, WhatComesAfterQuitCostsNoReply) {
    constexpr int kRequests = 500;  // with replies beyond what our side's buffer takes at once
    FiledServer server(kOneWorker);
    Transcript talk(server);
    std::string lines;
    for (int i = 0; i < kRequests; i++)
        lines += "HELP\n";
    talk['1'].send(lines + "QUIT\n" + std::string(100000, '\n'));  // unread, it would be a reset
    for (int i = 0; i < kRequests; i++)
        talk.play("1< OK words*");
    talk.play("1< OK bye\n1.");
}

TEST(Filed, EverySleepIsAnsweredWhenItIsDue) {
    FiledServer server(kOneWorker);
    play(server, R"(
        1> SLEEP 10000
        2> SLEEP 100
        3> NAP 9000
        4> SLEEP 150
        2< OK slept 100 ms
        4< OK slept 150 ms
        4> NAP 10 => OK napped 10 ms
        1~
        3~
        3$
        4? STATS => - worker * connections 3 *)");  // the nap still has 3's record on the stack
    EXPECT_EQ(server.stop(), 0);
}

TEST(Filed, ACommandIsAwaitedWhileOthersAreServed) {
    FiledServer server(kPrograms);
    Transcript talk(server);
    const std::string gate = server.path("gate");
    ASSERT_EQ(::mkfifo(gate.c_str(), 0666), 0);
    talk['1'].send("SYSTEM read -r line <'" + gate + "' && exit 3\n");
    std::ofstream open(gate);  // returns once the command reads
    talk.play(R"(
        2> SYSTEM kill -9 $$ => OK signal 9
        2> SYSTEM echo unheard => OK exit 0
        1~)");
    open << "go\n" << std::flush;
    talk.play("1< OK exit 3");
}

TEST(Filed, AProgramIsStreamedAndEndsWithItsClient) {
    FiledServer server(kPrograms);
    Transcript talk(server);
    const std::string fifo = server.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    talk.play(R"(
        1> RUN echo first; read line <fifo; echo $line >&2; exit 7 => DATA 6
        1< first
        1<
        2> STATS => OK *
        1~)");
    std::ofstream(fifo) << "second\n";
    talk.play(R"(
        1< DATA 7
        1< second
        1<
        1< OK exit 7
        1> RUN kill -TERM $$ => OK signal 15
        2> RUN yes | head -c 1000000
        1> RUN echo $$; while :; do sleep 1000; done)");
    for (size_t total = 0; total < 1000000 && !HasFailure();)
        total += talk['2'].data().size();
    talk.play("2< OK exit 0");
    const pid_t program = std::stoi(talk['1'].data());
    talk['1'].reset();
    EXPECT_TRUE(waitUntilGone(program));
}

TEST(Filed, ASilentConnectionIsClosedAndOneWithACommandIsNot) {
    FiledServer server({"-w", "1", "-i", "1"});
    play(server, R"(
        1> SLEEP 2500
        2< ERR IDLE *
        2.
        1< OK slept 2500 ms)");
}

size_t residentBytes(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    size_t total = 0, resident = 0;
    file >> total >> resident;
    return resident * static_cast<size_t>(::getpagesize());
}

TEST(Filed, AClientThatDoesNotReadCostsNoMemoryAndLosesNothing) {
    constexpr size_t kFileBytes = 8 << 20;
    constexpr int kReads = 16;
    FiledServer server(kOneWorker);
    std::string content(kFileBytes, '\0');
    for (size_t i = 0; i < content.size(); i++)
        content[i] = static_cast<char>('a' + i % 23);
    server.write("big", content);
    FiledClient client(server), other(server);
    EXPECT_EQ(client.ask("OPEN read big"), "OK 1 read");
    const size_t before = residentBytes(client.worker);
    for (int i = 0; i < kReads; i++)
        client.send("READ 1 0 -1\n");
    for (int i = 0; i < 200; i++)  // far more passes than it takes to fill the socket
        EXPECT_TRUE(other.ask("STATS").starts_with("OK"));
    EXPECT_LT(residentBytes(client.worker), before + kFileBytes);
    for (int i = 0; i < kReads; i++) {
        std::string got;
        while (got.size() < kFileBytes && !HasFailure())
            got += client.data();
        EXPECT_TRUE(got == content);
        EXPECT_TRUE(client.line().starts_with("OK 8388608"));
    }
}

}  // namespace
