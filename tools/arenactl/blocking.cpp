#include "blocking.h"

#include "words.h"

namespace {

constexpr uint32_t kRefusingOplocks = SHARED_FILE_OPLOCK_EXCLUSIVE | SHARED_FILE_OPLOCK_BATCH;
constexpr uint32_t kAnyAccess = SHARED_FILE_READ | SHARED_FILE_WRITE | SHARED_FILE_DELETE;

struct Denial {
    uint32_t bit;    // in the mode of an open
    uint32_t needs;  // one of these bits too, if not 0
    const char *stops;
};

// The share test runs both ways: an access that is had is in the way of whoever would deny it.
constexpr Denial kDenials[] = {
    {SHARED_FILE_DENY_READ, 0, "opens that read"},
    {SHARED_FILE_DENY_WRITE, 0, "opens that write"},
    {SHARED_FILE_DENY_DELETE, kAnyAccess, "opens that delete"},
    {SHARED_FILE_READ, 0, "opens that deny reading"},
    {SHARED_FILE_WRITE, 0, "opens that deny writing"},
    {SHARED_FILE_DELETE, 0, "opens that deny deleting"},
    {kRefusingOplocks, 0, "opens that heed oplocks"},
};

bool sameHolder(const TableRecord &a, const TableRecord &b) {
    return a.pid == b.pid && a.owner == b.owner && a.handle == b.handle;
}

void addOpen(const TableRecord &open, Obstacle *obstacle) {
    for (const Denial &denial : kDenials) {
        if ((open.mode & denial.bit) && (denial.needs == 0 || (open.mode & denial.needs)))
            obstacle->stops.emplace_back(denial.stops);
    }
}

// A lock without the exclusive bit lets others read.
void addLock(const TableFile &file, const TableRecord &lock, Obstacle *obstacle) {
    const bool stopsReading = (lock.mode & SHARED_FILE_LOCK_EXCLUSIVE) != 0;
    if (stopsReading) obstacle->stops.emplace_back("reading these bytes");
    obstacle->stops.emplace_back("writing these bytes");
    const uint32_t access = SHARED_FILE_WRITE | (stopsReading ? SHARED_FILE_READ : 0u);
    for (const TableRecord &other : file.records) {
        if (other.isOpen && !sameHolder(lock, other) && (other.mode & access))
            obstacle->affected.push_back(&other);
    }
}

}  // namespace

std::vector<Obstacle> obstaclesIn(const TableFile &file) {
    std::vector<Obstacle> obstacles;
    for (const TableRecord &record : file.records) {
        Obstacle obstacle{&record, {}, {}};
        if (record.isOpen)
            addOpen(record, &obstacle);
        else if (!isEmptyRange(record))
            addLock(file, record, &obstacle);
        if (!obstacle.stops.empty()) obstacles.push_back(std::move(obstacle));
    }
    return obstacles;
}
