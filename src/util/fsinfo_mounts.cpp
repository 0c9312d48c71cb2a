// The mount points' devices, for quotactl.
//
// The mount table is read at the first lookup and its lines are kept for the life of the process: a
// server asks for the same few file systems over and over, and every reading costs a stat() of each
// mount point. Kept lines are never looked at again, so a device that is unmounted and replaced
// under the same device number keeps its old name.

#include "util/util_internal.h"

#include "support/guards.h"
#include "support/list.h"

#include <cstdio>
#include <cstring>
#include <mntent.h>
#include <sys/stat.h>

namespace {

constexpr char kMountTablePath[] = "/etc/mtab";

// One line of the mount table. Never freed once it is in the list.
struct MountPoint : ListLink {
    char *device;  // the mounted device's name, as quotactl takes it
    uint64_t dev;  // st_dev of the directory that it is mounted on
};

ListLink mountPointHead{&mountPointHead, &mountPointHead};  // the newest record comes first
bool inited = false;  // whether a lookup has tried to load the table

// The mount table opened for reading; closed at the end of the scope.
class MountTable {
public:
    MountTable() : table_(::setmntent(kMountTablePath, "r")) {}
    ~MountTable() {
        if (table_ != nullptr) (void)::endmntent(table_);  // always 1
    }
    MountTable(const MountTable &) = delete;
    MountTable &operator=(const MountTable &) = delete;

    // The next line whose directory can be stat'ed, and that directory's device number.
    const mntent *next(uint64_t *dev) {
        if (table_ == nullptr) return nullptr;
        while (const mntent *line = ::getmntent(table_)) {
            struct stat directory;
            if (::stat(line->mnt_dir, &directory) != 0) continue;
            *dev = directory.st_dev;
            return line;
        }
        return nullptr;
    }

private:
    FILE *table_;
};

// Fills and links the record; false, with the record freed, when the name cannot be copied.
bool keepMountPoint(MountPoint *record, const mntent &line, uint64_t dev) {
    record->device = ::strdup(line.mnt_fsname);
    if (record->device == nullptr) {
        std::free(record);
        return false;
    }
    record->dev = dev;
    prependToList(&mountPointHead, record);
    return true;
}

void loadMountTable() {
    MountTable table;
    uint64_t dev = 0;
    while (const mntent *line = table.next(&dev)) {
        auto *record = newRecord<MountPoint>();
        if (record == nullptr) continue;
        if (!keepMountPoint(record, *line, dev)) return;
    }
}

const char *searchMountPoints(uint64_t dev) {
    for (const ListLink *link = mountPointHead.next; link != &mountPointHead; link = link->next) {
        const auto *record = static_cast<const MountPoint *>(link);
        if (record->dev == dev) return record->device;
    }
    return nullptr;
}

// Finds what was mounted since the table was loaded. The first matching line counts here, while in
// the cache, filled from the head, the last one comes first.
const char *rescanMountTable(uint64_t wanted) {
    MountTable table;
    uint64_t dev = 0;
    while (const mntent *line = table.next(&dev)) {
        if (dev != wanted) continue;
        auto *record = newRecord<MountPoint>();
        if (record == nullptr || !keepMountPoint(record, *line, dev)) return nullptr;
        return record->device;
    }
    return nullptr;
}

}  // namespace

const char *iosched_lib::findMountedDevice(uint64_t dev) {
    if (!inited) {
        inited = true;
        loadMountTable();
    }
    const char *device = searchMountPoints(dev);
    return device != nullptr ? device : rescanMountTable(dev);
}
