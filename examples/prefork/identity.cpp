#include "identity.h"
#include "service.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

bool becomeUser(const char *user) {
    const passwd *entry = getpwnam(user);
    if (!entry) {
        logLine("there is no user %s", user);
        return false;
    }
    if (geteuid() != 0 && entry->pw_uid != geteuid()) {
        logLine("only root can become another user: %s", user);
        return false;
    }
    if (geteuid() != 0) return true;
    int parentDeathSignal = 0;
    (void)prctl(PR_GET_PDEATHSIG, &parentDeathSignal);
    if (initgroups(user, entry->pw_gid) < 0 ||
        setresgid(entry->pw_gid, entry->pw_gid, entry->pw_gid) < 0 ||
        setresuid(entry->pw_uid, entry->pw_uid, entry->pw_uid) < 0) {
        logLine("cannot become the user %s: %s", user, strerror(errno));
        return false;
    }
    // The change of identity took both away. The supervisor that asked for the signal still wants
    // it, and the program that repairs the arena has to look into the workers.
    (void)prctl(PR_SET_PDEATHSIG, parentDeathSignal);
    (void)prctl(PR_SET_DUMPABLE, 1);
    return true;
}
