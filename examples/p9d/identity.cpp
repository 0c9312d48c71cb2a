#include "identity.h"

#include <algorithm>
#include <grp.h>
#include <map>
#include <pwd.h>
#include <sys/fsuid.h>
#include <unistd.h>
#include <vector>

namespace {

struct User {
    gid_t group;
    std::vector<gid_t> groups;
};

// Looked up once: a change in the user database counts for the next worker.
const User &findUser(uint32_t uid) {
    static std::map<uint32_t, User> known;
    const auto found = known.find(uid);
    if (found != known.end()) return found->second;
    User user{uid, {}};
    if (const passwd *entry = getpwuid(uid)) {
        user.group = entry->pw_gid;
        int count = 64;
        user.groups.resize(static_cast<size_t>(count));
        if (getgrouplist(entry->pw_name, entry->pw_gid, user.groups.data(), &count) < 0) {
            user.groups.resize(static_cast<size_t>(count));
            (void)getgrouplist(entry->pw_name, entry->pw_gid, user.groups.data(), &count);
        }
        user.groups.resize(static_cast<size_t>(count));
    }
    return known.emplace(uid, std::move(user)).first->second;
}

bool mayUse(const User &user, uint32_t uid, uint32_t group) {
    return uid == 0 || group == user.group ||
           std::find(user.groups.begin(), user.groups.end(), group) != user.groups.end();
}

}  // namespace

void actAs(uint32_t uid, uint32_t group) {
    static const bool isRoot = geteuid() == 0;
    static uint32_t userNow = ~0u, groupNow = ~0u;
    if (!isRoot) return;
    const User &user = findUser(uid);
    const uint32_t wanted = group != ~0u && mayUse(user, uid, group) ? group : user.group;
    if (uid != userNow) {
        (void)setfsuid(0);  // the rights to change groups come with it
        (void)setgroups(user.groups.size(), user.groups.data());
        (void)setfsgid(wanted);
        (void)setfsuid(uid);
    } else if (wanted != groupNow) {
        (void)setfsgid(wanted);
    }
    userNow = uid;
    groupNow = wanted;
}
