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

/* Called from the loop with the registered argument. The status is valid during the call only. */
typedef void (*ChildDoneFunc)(void *arg, const ChildStatus *status);

/* Sets what is called when a child ends or stops. Register a child before the next pass after
 * starting it, and its end cannot be missed, however soon it comes. Once InitSched() has succeeded
 * the library reaps every child of the process: do not wait for one yourself.
 *
 *   pid       the child.
 *   callback  called once, from the loop; NULL removes the registration, and a status that has been
 *             collected for it is dropped. A stop ends the registration too: register the child
 *             again in the callback to hear more of it. May call any library function.
 *   arg       handed back untouched; stays the caller's.
 *
 * A second call for the same child replaces callback and argument, also between its end and its
 * callback, which then gets the stored status. Usable before InitSched(). Returns 0; -1 with errno
 * ESRCH when there is nothing to remove, or ENOMEM, and nothing changed. */
int registerChild(int pid, ChildDoneFunc callback, void *arg);

/* Returns the status word that wait() would have given: WIFEXITED() and its like apply. */
int buildStatus(const ChildStatus *status);

/* ---- fork hooks ---- */

#define FORK_PREPARE 0 /* in the parent, before fork; value -1 */
#define FORK_PARENT 1  /* in the parent; value is the child's process id */
#define FORK_CHILD 2   /* in the child, once the library works there; value is its process id */
#define FORK_FAILED 3  /* in the parent; value is fork's errno */

/* Called by ioFork() in each phase with the registered argument. */
typedef void (*ForkHookFunc)(void *arg, int phase, int value);

/* Appends a hook (registerFork), or removes the oldest one with this function and argument
 * (unRegisterFork). Hooks run oldest first in all phases. A hook may register and remove hooks, its
 * own included: a removed one is not called any more, a new one is called in the same walk. The same
 * pair registered twice is called twice. Usable before InitSched().
 *
 * registerFork returns 0, or -1 with errno ENOMEM, or EINVAL for a null function. unRegisterFork
 * returns 0, or -1 with errno ESRCH. */
int registerFork(ForkHookFunc function, void *arg);
int unRegisterFork(ForkHookFunc function, void *arg);

/* Forks with the hooks run around it. The child has a loop of its own: no registered children, a new
 * signal pipe, and the parent's descriptors, signals, timers and queued calls as they were. May be
 * called in any callback; parent and child both return into it.
 *
 * Returns the child's process id in the parent, 0 in the child, -1 with fork's errno. */
pid_t ioFork(void);

/* ---- starting programs ---- */

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
