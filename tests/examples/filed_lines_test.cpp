// Connections: lines, limits, sleeping, idling, back-pressure, programs.
#include "filed_server.h"
#include "support/guards.h"

#include <sys/stat.h>

namespace {

const std::vector<std::string> kOneWorker = {"-w", "1"};

TEST(FiledLines, BadLinesAreAnsweredAndTheConnectionGoesOn) {
    FiledServer server(kOneWorker);
    FiledClient client(server);
    EXPECT_TRUE(client.ask("NONSENSE 1 2").starts_with("ERR VERB"));
    EXPECT_TRUE(client.ask("").starts_with("ERR VERB"));
    EXPECT_TRUE(client.ask(std::string("ST\0ATS", 6)).starts_with("ERR LINE"));
    EXPECT_TRUE(client.ask("READ 1 0 10").starts_with("ERR HANDLE"));
    EXPECT_TRUE(client.ask("OPEN read").starts_with("ERR SYNTAX"));
    EXPECT_TRUE(client.ask("stats\r").starts_with("OK workers 1"));
}

TEST(FiledLines, AnOverlongLineIsAnsweredOnceAndSkipped) {
    FiledServer server(kOneWorker);
    FiledClient client(server), other(server);
    EXPECT_TRUE(client.ask(std::string(4097, 'x')).starts_with("ERR LINE longer"));
    client.send(std::string(1 << 20, 'x'));
    EXPECT_TRUE(client.reply().last.starts_with("ERR LINE longer"));
    EXPECT_TRUE(other.ask("STATS").starts_with("OK"));
    EXPECT_TRUE(client.ask("the end of it\nSTATS").starts_with("OK workers"));
}

TEST(FiledLines, AHalfClosedConnectionGetsAllItsReplies) {
    FiledServer server({"-w", "1", "-R"});
    FiledClient client(server);
    client.send("SLEEP 20\nRUN echo one\nSTATS\nno end");
    client.halfClose();
    EXPECT_EQ(client.reply().last, "OK slept 20 ms");
    const Reply run = client.reply();
    EXPECT_EQ(run.data, "one\n");
    EXPECT_EQ(run.last, "OK exit 0");
    EXPECT_TRUE(client.reply().last.starts_with("OK workers"));
    EXPECT_TRUE(client.reply().last.starts_with("ERR LINE"));
    EXPECT_TRUE(client.atEnd());
}

TEST(FiledLines, WhatComesAfterQuitCostsNoReply) {
    constexpr int kRequests = 500;  // with replies beyond what our side's buffer takes at once
    FiledServer server(kOneWorker);
    FiledClient client(server);
    std::string lines;
    for (int i = 0; i < kRequests; i++)
        lines += "HELP\n";
    const std::string more(100000, '\n');  // left unread, it would reset the connection
    client.send(lines + "QUIT\n" + more);
    for (int i = 0; i < kRequests; i++)
        EXPECT_TRUE(client.reply().last.starts_with("OK words"));
    EXPECT_EQ(client.reply().last, "OK bye");
    EXPECT_TRUE(client.atEnd());
}

TEST(FiledLines, OthersAreServedWhileOneSleepsAndGoesAway) {
    FiledServer server(kOneWorker);
    FiledClient sleeper(server), gone(server), other(server);
    sleeper.send("SLEEP 10000\n");
    gone.send("SLEEP 100\nSTATS\n");
    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(other.ask("STATS").starts_with("OK"));
    EXPECT_TRUE(sleeper.quiet());
    gone.reset();  // its record must outlive its own command
    EXPECT_EQ(other.ask("SLEEP 150"), "OK slept 150 ms");
    EXPECT_TRUE(other.askAll("STATS").info.at(0).find("connections 2 ") != std::string::npos);
    EXPECT_EQ(server.stop(), 0);  // with a sleep still on the stack
}

TEST(FiledLines, OthersAreServedWhileOneAwaitsACommand) {
    FiledServer server({"-w", "1", "-R"});
    FiledClient waiter(server), other(server);
    const std::string gate = server.path("gate");
    ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
    waiter.send("SYSTEM read -r line <'" + gate + "' && exit 3\n");
    const FdGuard gateFd(::open(gate.c_str(), O_WRONLY));  // returns once the command reads
    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(other.ask("STATS").starts_with("OK"));
    EXPECT_TRUE(waiter.quiet());
    ASSERT_EQ(::write(gateFd.get(), "go\n", 3), 3);
    EXPECT_EQ(waiter.reply().last, "OK exit 3");
    EXPECT_EQ(other.ask("SYSTEM kill -9 $$"), "OK signal 9");
}

TEST(FiledLines, ASilentConnectionIsClosedAndOneWithACommandIsNot) {
    FiledServer server({"-w", "1", "-i", "1"});
    FiledClient silent(server), busy(server);
    busy.send("SLEEP 2500\n");
    EXPECT_TRUE(silent.line().starts_with("ERR IDLE"));
    EXPECT_TRUE(silent.atEnd());
    EXPECT_EQ(busy.line(), "OK slept 2500 ms");
}

TEST(FiledLines, ConnectionsAboveTheLimitAreTold) {
    FiledServer server({"-w", "1", "-c", "2"});
    FiledClient first(server), second(server), third(server);
    EXPECT_TRUE(third.greeting.starts_with("ERR LIMIT"));
    EXPECT_TRUE(third.atEnd());
    EXPECT_TRUE(first.ask("STATS").starts_with("OK"));
    EXPECT_EQ(second.ask("QUIT"), "OK bye");
    EXPECT_TRUE(second.atEnd());
}

size_t residentBytes(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    size_t total = 0, resident = 0;
    file >> total >> resident;
    return resident * static_cast<size_t>(::getpagesize());
}

TEST(FiledLines, AClientThatDoesNotReadCostsNoMemoryAndLosesNothing) {
    constexpr size_t kFileBytes = 8 << 20;
    constexpr int kReads = 16;
    FiledServer server(kOneWorker);
    std::string content(kFileBytes, '\0');
    for (size_t i = 0; i < content.size(); i++)
        content[i] = static_cast<char>('a' + i % 23);
    writeFile(server.path("big"), content);
    FiledClient client(server), other(server);
    EXPECT_EQ(client.ask("OPEN read big"), "OK 1 read");
    const size_t before = residentBytes(client.worker);
    for (int i = 0; i < kReads; i++)
        client.send("READ 1 0 -1\n");
    for (int i = 0; i < 200; i++)  // far more passes than it takes to fill the socket
        EXPECT_TRUE(other.ask("STATS").starts_with("OK"));
    EXPECT_LT(residentBytes(client.worker), before + kFileBytes);
    for (int i = 0; i < kReads; i++)
        EXPECT_TRUE(client.reply().data == content);
}

TEST(FiledLines, AProgramIsStreamedWhileOthersAreServed) {
    FiledServer server({"-w", "1", "-R"});
    const std::string fifo = server.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    FiledClient client(server), other(server);
    client.send("RUN echo first; read line <fifo; echo $line >&2; exit 7\n");
    EXPECT_EQ(client.data(), "first\n");
    EXPECT_TRUE(other.ask("STATS").starts_with("OK"));
    EXPECT_TRUE(client.quiet());
    std::ofstream(fifo) << "second\n";
    EXPECT_EQ(client.data(), "second\n");
    EXPECT_EQ(client.line(), "OK exit 7");
    EXPECT_EQ(client.ask("RUN kill -TERM $$"), "OK signal 15");
    EXPECT_EQ(client.askAll("RUN yes | head -c 1000000").data.size(), 1000000u);
}

TEST(FiledLines, AProgramEndsWithItsClient) {
    FiledServer server({"-w", "1", "-R"});
    FiledClient client(server);
    client.send("RUN echo $$; while :; do sleep 1000; done\n");
    const pid_t program = std::stoi(client.data());
    client.reset();
    EXPECT_TRUE(waitUntilGone(program));
}

TEST(FiledLines, ProgramsAreOffUnlessAskedFor) {
    FiledServer server(kOneWorker);
    EXPECT_TRUE(FiledClient(server).ask("RUN id").starts_with("ERR OFF"));
}

}  // namespace
