#include "witness.h"

#include <algorithm>
#include <utility>

namespace {

template <class Grant>
bool sameHolder(const Grant &grant, int client, uint32_t handle) {
    return grant.client == client && grant.handle == handle;
}

bool denies(const OpenGrant &a, const OpenGrant &b) {
    return (a.denyReads && b.reads) || (a.denyWrites && b.writes) || a.soleOplock;
}

bool overlap(const RangeGrant &range, int64_t first, int64_t last) {
    return range.first <= last && first <= range.last;
}

}  // namespace

Witness::Witness(int files, std::function<bool(int)> stillHolds)
    : files_(static_cast<size_t>(files)), stillHolds_(std::move(stillHolds)) {}

template <class Grant, class Conflicts>
void Witness::check(int file, const std::vector<Grant> File::*list, const char *what, int client,
                    Conflicts conflicts) {
    const std::vector<Grant> held = files_[static_cast<size_t>(file)].*list;
    for (const Grant &other : held) {
        checked_++;
        if (!conflicts(other)) continue;
        if (other.client != client && !stillHolds_(other.client)) {
            forget(other.client);
            continue;
        }
        if (violations_++ > 0) continue;
        first_ = std::string(what) + " of client " + std::to_string(client) + " on file " +
                 std::to_string(file) + " against client " + std::to_string(other.client);
    }
}

void Witness::opened(int file, OpenGrant grant) {
    check(file, &File::opens, "open", grant.client,
          [&](const OpenGrant &other) { return denies(grant, other) || denies(other, grant); });
    files_[static_cast<size_t>(file)].opens.push_back(grant);
}

void Witness::modeGivenUp(int file, int client, uint32_t handle) {
    for (OpenGrant &open : files_[static_cast<size_t>(file)].opens)
        if (sameHolder(open, client, handle))
            open.soleOplock = open.denyReads = open.denyWrites = false;
}

void Witness::closed(int file, int client, uint32_t handle) {
    const auto his = [&](const auto &grant) { return sameHolder(grant, client, handle); };
    std::erase_if(files_[static_cast<size_t>(file)].opens, his);
    std::erase_if(files_[static_cast<size_t>(file)].ranges, his);
}

// Its own exclusive lock does not stop a holder's shared one; everything else that meets an
// exclusive lock conflicts.
void Witness::locked(int file, RangeGrant grant) {
    check(file, &File::ranges, "lock", grant.client, [&](const RangeGrant &other) {
        if (!overlap(other, grant.first, grant.last)) return false;
        if (sameHolder(other, grant.client, grant.handle)) return grant.exclusive;
        return grant.exclusive || other.exclusive;
    });
    grant.since = tick();
    files_[static_cast<size_t>(file)].ranges.push_back(grant);
}

void Witness::unlocked(int file, int client, uint32_t handle, int64_t first, int64_t last) {
    std::vector<RangeGrant> &ranges = files_[static_cast<size_t>(file)].ranges;
    const auto found = std::find_if(ranges.begin(), ranges.end(), [&](const RangeGrant &range) {
        return sameHolder(range, client, handle) && range.first == first && range.last == last;
    });
    if (found != ranges.end()) ranges.erase(found);
}

// Only a lock that was held when the request left and is held still must have been seen by it.
void Witness::transferred(int file, int client, uint32_t handle, int64_t first, int64_t last,
                          bool writing, uint64_t sentAt) {
    check(file, &File::ranges, writing ? "write" : "read", client, [&](const RangeGrant &other) {
        return !sameHolder(other, client, handle) && other.since < sentAt &&
               (writing || other.exclusive) && overlap(other, first, last);
    });
}

void Witness::forget(int client) {
    for (File &file : files_) {
        std::erase_if(file.opens, [&](const OpenGrant &open) { return open.client == client; });
        std::erase_if(file.ranges, [&](const RangeGrant &range) { return range.client == client; });
    }
}
