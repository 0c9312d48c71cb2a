/* How processes open, initialise, attach to, fork and delete one arena file, with flock alone and
 * no other word between them: src/shared/arena.cpp. Each statement that another process can see is
 * one step here, as each system call is one there. A process may die at every step; the kernel then
 * closes what it had open, which drops its locks.
 *
 * Shown: whoever holds a handle has the file mapped that is at the path, it is an arena, and nobody
 * cuts or deletes it; two holders share one file; a child of a fork keeps the very arena that its
 * parent had mapped. No process waits for ever, unless for the lock of one that does.
 *
 * guards: NO_PATH_CHECK NO_SECOND_LOOK NO_EXCLUSIVE_DELETE INHERITED_FIRST
 */

#define USERS 2            /* processes that open, fork and delete */
#define PROCS 3            /* and one child */
#define CHILD 2
#define FILES 3            /* inodes; one that nobody names or has open is used again */
#define OPENS 2            /* what the first user does before it ends; the second does one less */
#define FDS 5              /* open file descriptions: one for each user, which a fork leaves to the
                              child; the child's own; a new one for the parent */
#define CHILDS_OWN 3
#define PARENTS_NEXT 4

mtype = { none, shared, exclusive };
mtype = { bare, zeros, whole };

byte path;                 /* the inode that the path leads to, 0 = none */
mtype content[FILES + 1];
byte age[FILES + 1];       /* counts how often the file was emptied, modulo 4 */
byte inode[FDS];           /* of an open file description, 0 = not open */
mtype held[FDS] = none;    /* its lock */
byte users[FDS];           /* descriptors that refer to it: two after a fork */
byte mapped[PROCS];        /* the inode behind a handle that its process may use, 0 = none */
bool forked;
byte deaths = 1;
bool dying[PROCS];

/* flock grants fd a lock of that kind: no description of the same file stands against it. */
#define AGAINST(fd, kind, other) (other != fd && inode[other] == inode[fd] && \
    (held[other] == exclusive || (held[other] == shared && kind == exclusive)))
#define GRANTED(fd, kind) (!AGAINST(fd, kind, 0) && !AGAINST(fd, kind, 1) && \
    !AGAINST(fd, kind, 3) && !AGAINST(fd, kind, 4))

#define SOMEBODY_MAPS(file) (mapped[0] == file || mapped[1] == file || mapped[2] == file)

/* No name, descriptor or mapping keeps the inode. */
#define UNUSED(file) (path != file && !SOMEBODY_MAPS(file) && inode[0] != file && \
    inode[1] != file && inode[3] != file && inode[4] != file)

/* close(2), also by dying: the lock goes with the last descriptor of its description. */
inline closeFd(fd) {
    if
    :: inode[fd] != 0 ->
        users[fd]--;
        if
        :: users[fd] == 0 -> inode[fd] = 0; held[fd] = none
        :: else
        fi
    :: else
    fi
}

/* A handle is good: under its lock, the file is the one at the path, and whole. */
inline believe(who, fd) {
    d_step {
        assert(path == inode[fd] && content[inode[fd]] == whole);
        mapped[who] = inode[fd]
    }
}

/* OpenSharedArena: openAndJoin() and what it calls. */
inline openArena(me, fd, create) {
    skip;
start:
    atomic {  /* ::open(path, O_CREAT?) */
        if
        :: path == 0 && create ->
            if
            :: UNUSED(1) -> path = 1
            :: UNUSED(2) -> path = 2
            :: UNUSED(3) -> path = 3
            fi;
            content[path] = bare
        :: else
        fi;
        if
        :: path != 0 -> inode[fd] = path; users[fd] = 1
        :: else -> goto done
        fi
    };
join:
    if
    :: create ->
        atomic {  /* initialiseIdleFile(): flock(LOCK_EX | LOCK_NB) */
            if
            :: GRANTED(fd, exclusive) -> held[fd] = exclusive
            :: else -> goto attach
            fi
        };
        /* initialiseFile() */
        if
        :: path != inode[fd] -> d_step { closeFd(fd) }; goto start
        :: else
        fi;
        d_step {  /* writeEmptyArenaFile(): ftruncate takes the magic away */
            assert(!SOMEBODY_MAPS(inode[fd]));
            content[inode[fd]] = bare;
            age[inode[fd]] = (age[inode[fd]] + 1) % 4
        };
        content[inode[fd]] = zeros;
        content[inode[fd]] = whole  /* initialiseArenaHeader(): the magic last */
    :: else
    fi;
attach:
    /* attachFile(): turning a lock gives it up for a moment */
    held[fd] = none;
    d_step { GRANTED(fd, shared) -> held[fd] = shared };
#ifdef NO_SECOND_LOOK
    if
    :: create -> believe(me, fd); goto opened  /* trusts what it did under the exclusive lock */
    :: else
    fi;
#endif
#ifndef NO_PATH_CHECK
    if
    :: path != inode[fd] -> d_step { closeFd(fd) }; goto start
    :: else
    fi;
#endif
    atomic {  /* mapArena() and checkArenaHeader() */
        if
        :: content[inode[fd]] == whole -> believe(me, fd); goto opened
        :: else
        fi
    };
    if
    :: create -> held[fd] = none; goto join  /* not ready: LOCK_UN, and once more */
    :: d_step { closeFd(fd) }; goto done     /* an attacher's failure, or 500 tries are over */
    fi;
opened:
    skip
}

/* DeleteSharedArena */
inline deleteArena(fd) {
    skip;
again:
    if
    :: atomic { path != 0 -> inode[fd] = path; users[fd] = 1 }
    :: path == 0 -> goto done
    fi;
    atomic {
        if
#ifdef NO_EXCLUSIVE_DELETE
        :: held[fd] = none
#else
        :: GRANTED(fd, exclusive) -> held[fd] = exclusive
        :: else -> closeFd(fd); goto done  /* SHARED_ERR_BUSY */
#endif
        fi
    };
    if
    :: path != inode[fd] -> d_step { closeFd(fd) }; goto again
    :: else
    fi;
    d_step {  /* unlink */
        assert(!SOMEBODY_MAPS(path));
        path = 0
    };
    d_step { closeFd(fd) }
}

inline closeArena(me, fd) {
    d_step { mapped[me] = 0; closeFd(fd) }
}

/* ForkSharedArena in a child: until its own lock stands, the inherited descriptor keeps the
 * parent's. mine is the description that the child opens. */
proctype Child(byte inherited) {
    byte mine = CHILDS_OWN, born, file;
    {
        d_step { file = mapped[CHILD]; born = age[file] };
#ifdef INHERITED_FIRST
        d_step { closeFd(inherited); inherited = FDS };
#endif
        if
        :: atomic { path != 0 -> inode[mine] = path; users[mine] = 1 }
        :: d_step { path == 0 -> mapped[CHILD] = 0 }; goto done
        :: d_step { mapped[CHILD] = 0 }; goto done  /* any other failure: the lock goes as well */
        fi;
        d_step { GRANTED(mine, shared) -> held[mine] = shared };
        if
        :: path != inode[mine] || inode[mine] != file -> d_step { mapped[CHILD] = 0 }; goto done
        :: else
        fi;
        d_step { assert(content[file] == whole && age[file] == born) };
#ifndef INHERITED_FIRST
        d_step { closeFd(inherited); inherited = FDS };
#endif
        d_step { assert(path == file && content[file] == whole && age[file] == born) };
done:
        skip
    } unless { dying[CHILD] };
    d_step {
        mapped[CHILD] = 0;
        closeFd(mine);
        if
        :: inherited < FDS -> closeFd(inherited)
        :: else
        fi
    }
}

proctype User(byte me) {
    byte turns = OPENS - me, fd = me;
    bool create;
    {
        do
        :: turns > 0 ->
            turns--;
            if
            :: create = true
            :: create = false
            fi;
            if
            :: openArena(me, fd, create)
            :: deleteArena(fd)
            fi;
done:
            if
            :: atomic { mapped[me] != 0 && !forked ->
                   forked = true;
                   users[fd]++;
                   mapped[CHILD] = mapped[me];
                   run Child(fd)
               };
               d_step { mapped[me] = 0; closeFd(fd); fd = PARENTS_NEXT }
            :: closeArena(me, fd)
            fi
        :: else -> break
        od
    } unless { dying[me] };
    closeArena(me, fd)
}

/* Death comes at any step, once. */
active proctype Death() {
    do
    :: deaths > 0 ->
        if
        :: dying[0] = true
        :: dying[1] = true
        :: dying[CHILD] = true
        fi;
        deaths--
    :: break
    od
}

init {
    atomic {
        run User(0);
        run User(1)
    }
}
