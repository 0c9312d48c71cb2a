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
 *             again in the callback, before that returns, to hear the rest, even of a child that
 *             has gone on and ended meanwhile. May call any library function.
 *   arg       handed back untouched; stays the caller's.
 *
 * A second call for the same child replaces callback and argument, also between its end and its
 * callback, which then gets the stored status. The commands of ZORsystem() and ZORpopen() are not
 * touched: the library has registrations of its own for them. Usable before InitSched(), also for a
 * child that ends before it, unless SIGCHLD is ignored then. Returns 0; -1 with errno ESRCH when
 * there is nothing to remove, or ENOMEM, and nothing changed. */
int registerChild(int pid, ChildDoneFunc callback, void *arg);

/* Returns the status word that wait() would have given: WIFEXITED() and its like apply. */
int buildStatus(const ChildStatus *status);

/* ---- fork hooks ---- */

#define FORK_PREPARE 0 /* in the parent, before fork; value -1 */
#define FORK_PARENT 1  /* in the parent; value is the child's process id */
#define FORK_CHILD 2   /* in the child, once the library works there; value is its process id */
#define FORK_FAILED 3  /* in the parent; value is fork's errno */

/* Called by ioFork() in each phase with the registered argument. A hook that runs passes in
 * FORK_PARENT may reap the new child before ioFork() has returned its process id, so that it is
 * too late to register it: let it register the child itself. */
typedef void (*ForkHookFunc)(void *arg, int phase, int value);

/* Appends a hook (registerFork), or removes the oldest one with this function and argument
 * (unRegisterFork). Hooks run oldest first in all phases. A hook may register and remove hooks, its
 * own included: a removed one is not called any more, a new one is called in the same walk. The
 * same pair registered twice is called twice. Usable before InitSched().
 *
 * registerFork returns 0, or -1 with errno ENOMEM, or EINVAL for a null function. unRegisterFork
 * returns 0, or -1 with errno ESRCH. */
int registerFork(ForkHookFunc function, void *arg);
int unRegisterFork(ForkHookFunc function, void *arg);

/* Forks with the hooks run around it. The child has a loop of its own: no registered children, a
 * new signal pipe, and the parent's descriptors, signals, timers and queued calls as they were. A
 * signal that the parent had received and not yet dispatched runs its callback in both. May be
 * called in any callback; parent and child both return into it.
 *
 * Returns the child's process id in the parent, 0 in the child, -1 with fork's errno. */
pid_t ioFork(void);

/* ---- starting programs ---- */

/* Bits of SpawnOptions.flags: which of the other fields count. */
#define SPAWN_EXTFLAGS 0x1u    /* extFlags */
#define SPAWN_STDIN 0x2u       /* stdinFd becomes standard input */
#define SPAWN_STDOUT 0x4u      /* stdoutFd becomes standard output */
#define SPAWN_STDERR 0x8u      /* stderrFd becomes standard error */
#define SPAWN_CHDIR 0x10u      /* directory becomes the working directory */
#define SPAWN_SETUID 0x20u     /* run as uid */
#define SPAWN_SETGID 0x40u     /* run as gid */
#define SPAWN_ARGV 0x80u       /* argv is the argument vector; the shell is never used */
#define SPAWN_PUTENV 0x100u    /* environment is added to the environment */
#define SPAWN_SETGROUPS 0x400u /* groups become the supplementary groups */

/* Bits of SpawnOptions.extFlags. */
#define SPAWN_EXT_DEVNULL 0x1u /* descriptors 0, 1 and 2 on /dev/null; overrides the redirections */
#define SPAWN_EXT_SETSID 0x2u  /* start a new session */
#define SPAWN_EXT_SETPGRP 0x4u /* lead a new process group */
#define SPAWN_EXT_NOPATH 0x8u  /* the command is a path: no search of PATH, no shell */

/* What the child changes before it becomes the program. Stays the caller's and is only read, in the
 * child; a field counts only with its bit. */
typedef struct SpawnOptions {
    uint32_t flags;        /* SPAWN_ bits */
    uint32_t extFlags;     /* SPAWN_EXT_ bits */
    int32_t stdinFd;       /* redirections are made in this order, each by dup2; then those of */
    int32_t stdoutFd;      /* the three that are above 2 are closed in the child. One descriptor */
    int32_t stderrFd;      /* may serve several; one that is its own target is left alone */
    const char *directory; /* path, NUL-terminated */
    uint32_t uid;          /* user id */
    uint32_t gid;          /* group id */
    char *const *argv;     /* strings, ended by a null pointer; argv[0] included */
    char *const *environment; /* NAME=value strings, ended by a null pointer */
    int32_t groupCount;       /* how many ids groups has */
    const uint32_t *groups;   /* group ids */
} SpawnOptions;

/* Starts a program and returns at once. The child redirects its descriptors, then changes
 * directory, group, supplementary groups, user, session, process group and environment, in that
 * order, and executes the command. All other descriptors that are not close-on-exec reach the
 * program, as do ignored signals; caught ones are at their default there, and none is blocked.
 *
 *   options  NULL stands for no bits set.
 *   command  with SPAWN_ARGV or SPAWN_EXT_NOPATH a program; else a program too, unless it contains
 *            white space or any of $*?[]{}<>|&;~()'`" , which make it a command line for /bin/sh. A
 *            program without SPAWN_EXT_NOPATH is searched for in PATH. Without SPAWN_ARGV its only
 *            argument is its own name.
 *
 * Returns the child's process id; -1 with fork's errno, or with EINVAL for a null command, and
 * nothing started. A child that cannot make one of its changes (redirections and environment are
 * not checked) or cannot execute the program ends with exit status 127. Runs no fork hooks.
 * Register the child before the next pass of the loop, and start none while enableSignals() lets
 * SIGCHLD in, which may collect it before that. */
pid_t spawnProcess(const SpawnOptions *options, const char *command);

/* ---- shell commands and pipes ---- */

/* These stand in for system(), popen() and pclose() in a process that runs the loop, and need
 * InitSched(). Their waits run passes, so every callback goes on being served, and nest; they last
 * until the command ends, or stops: it counts as ended then. Like a pass, a wait lets all signals
 * in and leaves the loop's mask behind, which ends the effect of enableSignals(). What returns
 * without a wait (ZORpopen(), and ZORsystem() when nothing was started) leaves the signal mask as
 * it was, and lets nothing in that was blocked. */

/* Runs a command, as spawnProcess(NULL, command) starts it, and waits for it. SIGINT and SIGQUIT
 * are ignored meanwhile, and come back as they were; the command has them as they were before.
 *
 * Returns the command's status word, to which WIFEXITED() and its like apply: 0x7f00 when it could
 * not be executed. -1 when it could not be started, with fork's errno, ENOMEM, or EINVAL for a null
 * command. A process that a callback forks off during the wait, in whatever way, gets -1 with errno
 * ECHILD. */
int ZORsystem(const char *command);

/* Starts a command, as spawnProcess() does, with a stream to its standard input or from its
 * standard output. No other command inherits the stream's descriptor.
 *
 *   mode  for fdopen(); 'r' at its start reads the command's output, anything else writes its
 *         input.
 *
 * Returns the stream, to be closed with ZORpclose() and nothing else. NULL with nothing started and
 * nothing left open: errno from pipe, fdopen or fork, ENOMEM, or EINVAL for a null argument. Passes
 * that run before ZORpclose() collect the command when it ends; its status is kept. What is written
 * to a command that has ended, ZORpclose()'s last flush included, raises SIGPIPE. */
FILE *ZORpopen(const char *command, const char *mode);

/* Closes a stream of ZORpopen() and waits for its command, which sees the end of its input or, when
 * it still writes, a broken pipe.
 *
 * Returns the command's status word. -1 with errno ECHILD, and the stream closed all the same, when
 * it is none of ZORpopen()'s, or another process opened it, from which this one was forked before
 * the command ended. */
int ZORpclose(FILE *stream);

/* ---- daemons and pseudo-terminals ---- */

/* Puts the program into the background: forks, ends the calling process with exit(0), exit handlers
 * included, and returns in the child, which leads a new session without a terminal. Directory,
 * umask and descriptors stay as they are. Flush the standard I/O streams first: what is buffered is
 * copied with them, and written by exit(0) and by the child again. Call it before InitSched(),
 * children and arenas: no fork hooks run, running timers stop, and children stay behind with the
 * process that ends.
 *
 * Returns 0 in the child; -1 with fork's errno in the calling process, which goes on. */
int daemonify(void);

/* Starts a new session without a terminal. Returns its id, or -1 with errno EPERM when the caller
 * leads a process group already. */
int disassociate(void);

/* Opens the master of a free pseudo-terminal, neither close-on-exec nor the caller's terminal.
 *
 *   name  receives the path of the slave; 20 bytes of room. Of no meaning after a failure.
 *
 * Returns the master's descriptor, or -1 with the errno of the last device tried. */
int allocPty(char *name);

/* Opens a slave as the controlling terminal of the calling process, which must lead a session
 * without one (see disassociate()). Sets cooked line modes with echo at 9600 baud, the usual
 * characters for interrupt, erase, kill and end of file, and the window size.
 *
 *   columns, rows  0 to 65535; 0 stands for unknown.
 *
 * Returns the slave's descriptor. -1 with the errno of the step that failed and nothing left open:
 * EPERM when the caller has a terminal already or leads no session. */
int setupSlave(const char *name, int columns, int rows);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
