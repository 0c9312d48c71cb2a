/* iosched/procs.h: child processes of a server built on the loop.
 *
 * The registry of children and their termination callbacks, fork hooks, starting programs, shell
 * commands and pipes, daemons and pseudo-terminals.
 */
#ifndef IOSCHED_PROCS_H
#define IOSCHED_PROCS_H

#include <stdint.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* How a child ended. Holds no pointers: copy it whole to keep it. */
typedef struct ChildStatus {
    int32_t pid;         /* the child's process id */
    int32_t termSignal;  /* signal that killed or stopped it; 0 when it exited */
    int32_t coreDumped;  /* 0x80 when it was killed and wrote a core image, else 0 */
    int32_t stopped;     /* 1 when the report is a stop, else 0 */
    int32_t exitCode;    /* exit status 0 to 255; 0 when termSignal is not 0 */
    struct rusage usage; /* what it used, as wait3 gave it */
} ChildStatus;

typedef void (*ChildDoneFunc)(void *arg, const ChildStatus *status);
int registerChild(int pid, ChildDoneFunc callback, void *arg);
int buildStatus(const ChildStatus *status);

#define FORK_PREPARE 0
#define FORK_PARENT 1
#define FORK_CHILD 2
#define FORK_FAILED 3

typedef void (*ForkHookFunc)(void *arg, int phase, int value);
int registerFork(ForkHookFunc function, void *arg);
int unRegisterFork(ForkHookFunc function, void *arg);
pid_t ioFork(void);

typedef struct SpawnOptions {
    uint32_t flags;
    uint32_t extFlags;
    int32_t stdinFd;
    int32_t stdoutFd;
    int32_t stderrFd;
    const char *directory;
    uint32_t uid;
    uint32_t gid;
    char *const *argv;
    char *const *environment;
    int32_t groupCount;
    const uint32_t *groups;
} SpawnOptions;

#define SPAWN_EXTFLAGS 0x1u
#define SPAWN_STDIN 0x2u
#define SPAWN_STDOUT 0x4u
#define SPAWN_STDERR 0x8u
#define SPAWN_CHDIR 0x10u
#define SPAWN_SETUID 0x20u
#define SPAWN_SETGID 0x40u
#define SPAWN_ARGV 0x80u
#define SPAWN_PUTENV 0x100u
#define SPAWN_SETGROUPS 0x400u

#define SPAWN_EXT_DEVNULL 0x1u
#define SPAWN_EXT_SETSID 0x2u
#define SPAWN_EXT_SETPGRP 0x4u
#define SPAWN_EXT_NOPATH 0x8u

pid_t spawnProcess(const SpawnOptions *options, const char *command);

int ZORsystem(const char *command);
FILE *ZORpopen(const char *command, const char *mode);
int ZORpclose(FILE *stream);

int daemonify(void);
int disassociate(void);
int allocPty(char *name);
int setupSlave(const char *name, int columns, int rows);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
