// Files: what the lock table makes of several processes' clients, and what is not served at all.
#include "filed/paths.h"
#include "filed_server.h"

namespace {

TEST(FiledFiles, AnOplockRefusesAClientOfAnotherWorkerUntilItIsGivenUp) {
    FiledServer server({"-w", "2"});
    writeFile(server.path("f"), "content");
    FiledClient first(server);
    FiledClient second = clientOfAnotherWorker(server, first.worker);
    const std::string holder = "pid " + std::to_string(first.worker);
    EXPECT_EQ(first.ask("OPEN read,oplock-batch f"), "OK 1 read,oplock-batch");
    EXPECT_EQ(second.ask("OPEN read f"),
              "ERR OPLOCK held by " + holder + " (in use: read,oplock-batch)");
    EXPECT_EQ(second.ask("HOLDERS f"), "OK " + holder);
    EXPECT_EQ(first.ask("MODE 1 deny-write"), "OK");
    EXPECT_EQ(second.ask("HOLDERS f"), "OK nobody");
    EXPECT_TRUE(first.ask("MODE 1 oplock-shared").starts_with("ERR OPLOCK"));
    EXPECT_EQ(second.ask("OPEN write f"), "ERR DENIED in use: read,deny-write");
    EXPECT_EQ(second.ask("OPEN read f"), "OK 1 read,deny-write");
    EXPECT_EQ(second.ask("INFO f"), "OK opens 2, read,deny-write");
    first.close();
    while (second.ask("INFO f") != "OK opens 1, read" && !HasFailure()) {
    }
}

TEST(FiledFiles, ReadsAndWritesRespectTheRangesOfOthers) {
    FiledServer server({"-w", "2"});
    writeFile(server.path("f"), std::string(1000, 'a'));
    FiledClient first(server);
    FiledClient second = clientOfAnotherWorker(server, first.worker);
    EXPECT_EQ(first.ask("OPEN read,write f"), "OK 1 read,write");
    EXPECT_EQ(second.ask("OPEN read,write f"), "OK 1 read,write");
    EXPECT_EQ(first.ask("LOCK 1 exclusive 100 50"), "OK");
    EXPECT_TRUE(second.ask("LOCK 1 shared 149 1").starts_with("ERR LOCKED"));
    EXPECT_TRUE(first.ask("LOCK 1 exclusive 0 -1").starts_with("ERR SELFLOCKED"));
    EXPECT_EQ(second.ask("TEST 1 read 0 1000"), "OK 100 bytes free, what follows is locked");
    const Reply read = second.askAll("READ 1 0 -1");
    EXPECT_EQ(read.data.size(), 100u);
    EXPECT_EQ(read.last, "OK 100 bytes, what follows is locked");
    EXPECT_EQ(second.ask("READ 1 120 10"), "ERR LOCKED byte 120 is locked");
    EXPECT_EQ(second.ask("WRITE 1 98 xyz"), "ERR LOCKED byte 100 is locked");
    EXPECT_EQ(first.ask("WRITE 1 100 b\\nb"), "OK 3 bytes");
    EXPECT_TRUE(first.ask("UNLOCK 1 100 49").starts_with("ERR NOTLOCKED"));
    EXPECT_EQ(first.ask("UNLOCK 1 100 50"), "OK");
    EXPECT_EQ(second.askAll("READ 1 99 5").data, "ab\nba");
    EXPECT_EQ(second.ask("READ 1 9223372036854775807 -1"), "OK 0 bytes");
    EXPECT_TRUE(second.ask("LOCK 1 shared 0 0").starts_with("ERR RANGE"));
    EXPECT_TRUE(second.ask("LOCK 1 shared -5 10").starts_with("ERR RANGE"));
    EXPECT_TRUE(second.ask("LOCK 1 shared 9223372036854775807 2").starts_with("ERR RANGE"));
}

TEST(FiledFiles, AccessAndTheNumberOfOpensAreLimited) {
    FiledServer server({"-w", "1"});
    writeFile(server.path("f"), "content");
    FiledClient client(server);
    EXPECT_TRUE(client.ask("OPEN read,max=1 f").starts_with("OK 1"));
    EXPECT_TRUE(client.ask("OPEN read f").starts_with("ERR DENIED"));
    EXPECT_TRUE(client.ask("WRITE 1 0 x").starts_with("ERR ACCESS"));
    EXPECT_EQ(client.ask("CLOSE 1"), "OK");
    for (int i = 0; i < 16; i++)
        EXPECT_TRUE(client.ask("OPEN write,create g").starts_with("OK"));
    EXPECT_TRUE(client.ask("OPEN read f").starts_with("ERR LIMIT"));
    EXPECT_TRUE(client.ask("READ 5 0 1").starts_with("ERR ACCESS"));
}

TEST(FiledFiles, NothingOutsideTheRootIsServed) {
    FiledServer server({"-w", "1"});
    FiledClient client(server);
    ASSERT_EQ(::mkdir(server.path("sub").c_str(), 0700), 0);
    writeFile(server.path("inside"), "x");
    ASSERT_EQ(::symlink("/etc", server.path("etc").c_str()), 0);
    ASSERT_EQ(::symlink("../../arena", server.path("sub/out").c_str()), 0);
    ASSERT_EQ(::symlink("../inside", server.path("sub/in").c_str()), 0);
    ASSERT_EQ(::link(server.arena().c_str(), server.path("arena").c_str()), 0);
    ASSERT_EQ(::mkfifo(server.path("fifo").c_str(), 0600), 0);
    for (const char *path : {"/etc/passwd", "../arena", "sub/../../arena", "etc/passwd", "sub/out",
                             "arena", "fifo", "sub", ".", "missing"})
        EXPECT_TRUE(client.ask(std::string("OPEN read ") + path).starts_with("ERR FILE")) << path;
    EXPECT_TRUE(client.ask("OPEN read,create ../new").starts_with("ERR FILE"));
    EXPECT_NE(::access((server.root() + "/../new").c_str(), F_OK), 0);
    EXPECT_TRUE(client.ask("OPEN read sub/in").starts_with("OK"));
    EXPECT_TRUE(client.ask("OPEN read sub/../inside").starts_with("OK"));
}

// What stands in on kernels without openat2().
TEST(FiledFiles, WalkingFollowsNoLinkAndLeavesNothingOpen) {
    ScratchDir dir;
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0700), 0);
    writeFile(dir / "sub/file", "x");
    ASSERT_EQ(::symlink("sub", (dir / "link").c_str()), 0);
    const int root = ::open(dir.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int before = openDescriptors();
    for (const char *path : {"/etc/passwd", "..", "../x", "sub/../../x", "link/file", "link", ""})
        EXPECT_EQ(openBeneathByWalking(root, path, O_RDONLY, 0), -1) << path;
    const int fd = openBeneathByWalking(root, "sub//file", O_RDONLY, 0);
    EXPECT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(openDescriptors(), before);
    ::close(root);
}

}  // namespace
