// The result codes of the library in words: what each means, and what to do about it. For every
// program that shows a code to people; arenactl explain prints all of it.
//
// The meanings are those beside the codes in the public headers, word for word, and a test holds
// them and docs/formats.md to each other.
#pragma once

#include "iosched/sched.h"
#include "iosched/shared.h"

#include <cerrno>
#include <cstdint>

struct ResultWords {
    uint32_t code;
    const char *name;
    const char *meaning;
    const char *remedy;
};

// Above every errno, so that one number never means both.
constexpr ResultWords kResultWords[] = {
    {SCHED_ERR_SYSTEM, "SCHED_ERR_SYSTEM", "a system call failed; errno says why",
     "look up the errno beside it; where a log has lost it, strace shows the call that failed"},
    {SCHED_ERR_VERSION, "SCHED_ERR_VERSION", "the caller was built for another interface",
     "install the version of the library that the program was built with, or build it anew"},
    {SHARED_ERR_VERSION, "SHARED_ERR_VERSION", "an arena of another layout version",
     "stop every process that uses the arena, then start them with one version of the library"},
    {SHARED_ERR_MAGIC, "SHARED_ERR_MAGIC", "no initialised arena",
     "check the path; a server that creates the arena makes a half-made one anew, once nobody "
     "has it open"},
    {SHARED_ERR_NOSPACE, "SHARED_ERR_NOSPACE", "no free block is large enough",
     "make the arena larger, which takes a restart; arenactl info shows the largest free block"},
    {SHARED_ERR_CORRUPT, "SHARED_ERR_CORRUPT",
     "not a chunk of this arena, or its lists are damaged",
     "arenactl check says what is damaged and arenactl repair whether it can be mended; a sound "
     "arena means that the program passed a wrong address"},
    {SHARED_ERR_NOTFOUND, "SHARED_ERR_NOTFOUND", "no chunk of that name, and no size to make one",
     "start the process that makes the chunk first; arenactl chunks lists the names"},
    {SHARED_ERR_BUSY, "SHARED_ERR_BUSY", "some process has the arena open",
     "stop the processes that arenactl info lists, the caller itself included"},
    {SHARED_ERR_DENIED, "SHARED_ERR_DENIED", "refused by the other opens, or by the limit",
     "an ordinary answer between users of a file; arenactl locks --blocking shows who refuses "
     "what"},
    {SHARED_ERR_NOLOCKS, "SHARED_ERR_NOLOCKS", "the table is full",
     "make the table larger, which takes a restart; until then arenactl clean removes what ended "
     "processes left, and arenactl locks shows who holds so many"},
    {SHARED_ERR_LOCKED, "SHARED_ERR_LOCKED", "another holder has a conflicting lock",
     "an ordinary answer: try again later; arenactl locks shows the holder"},
    {SHARED_ERR_SELFLOCKED, "SHARED_ERR_SELFLOCKED", "the caller's own lock conflicts",
     "the client locks bytes twice; it has to unlock first, or ask for a lock that stacks"},
    {SHARED_ERR_NOTLOCKED, "SHARED_ERR_NOTLOCKED", "the holder has no such lock",
     "an unlock names exactly the offset, length, owner and handle of the lock"},
    {SHARED_ERR_NOTOPEN, "SHARED_ERR_NOTOPEN", "nobody has the file open",
     "open the file in the table first, with the same key"},
    {SHARED_ERR_BADTABLE, "SHARED_ERR_BADTABLE", "the chunk is no lock table that is ready",
     "its creator may have died: arenactl repair ARENA TABLE gives such a table up; another kind "
     "of chunk has the name otherwise"},
    {SHARED_ERR_OPLOCK, "SHARED_ERR_OPLOCK", "an oplock is in the way, or there is none to keep",
     "have the holder give its oplock up, then ask again; arenactl locks shows who has one"},
};

// What an errno beside SCHED_ERR_SYSTEM comes from. Of those that are not here the system's own
// words are all that can be said.
constexpr ResultWords kErrnoWords[] = {
    {EACCES, "EACCES", "the file or its directory may not be used by this user",
     "run as the servers' user; arenas have mode 0600"},
    {EEXIST, "EEXIST", "the arena's file is there already, and SHARED_ARENA_EXCLUSIVE was given",
     "open it without that flag, or delete it when nobody uses it"},
    {EFBIG, "EFBIG", "the size is above the limit on a file's size (RLIMIT_FSIZE)",
     "raise the limit (ulimit -f), or make the arena smaller"},
    {EINTR, "EINTR", "a caught signal ended the wait", "call again"},
    {EINVAL, "EINVAL",
     "a size, count or mutex that the function does not take, or an empty arena file",
     "check the arguments; for a mutex, arenactl check tells whether it is damaged"},
    {EMFILE, "EMFILE", "the process has no descriptor left", "raise the limit (ulimit -n)"},
    {ENOENT, "ENOENT", "there is no file at the path, or no directory for it",
     "check the path; only SHARED_ARENA_CREATE makes the file, and nothing makes its directory"},
    {ENOMEM, "ENOMEM", "no memory for the handle or the mapping",
     "look at the limits of the process, or make the arena smaller"},
    {ENOSPC, "ENOSPC", "the file system has no room for the whole arena, which is written in full",
     "make room or choose another place; /dev/shm is small in many containers"},
    {EROFS, "EROFS", "the file system is mounted for reading only",
     "put the arena on a file system that can be written"},
    {ESTALE, "ESTALE", "another file has taken the arena's place at the path",
     "open the arena again; find out who deletes or replaces it while it is in use"},
};

// The words of a result code; null for a number that is none.
constexpr const ResultWords *wordsOfResult(uint32_t code) {
    for (const ResultWords &words : kResultWords) {
        if (words.code == code) return &words;
    }
    return nullptr;
}
