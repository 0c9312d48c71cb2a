// What a lock table should do, told without its means: no hash, no links, no stored sums. A file is
// a vector of opens and locks; modes and counts are added up whenever they are asked for.
#pragma once

#include "iosched/shared.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

struct ModelRecord {
    uint32_t pid, owner, handle;
    bool isOpen;
    uint64_t start, stop;  // a lock's bytes: from start up to but without stop
    uint32_t mode;

    bool sameHolder(const ModelRecord &other) const {
        return pid == other.pid && owner == other.owner && handle == other.handle;
    }
    bool meets(const ModelRecord &other) const {
        if (isOpen || other.isOpen) return false;
        if ((start == 0 && stop == 0) || (other.start == 0 && other.stop == 0)) return false;
        return start < other.stop && other.start < stop;
    }
};

struct ModelFile {
    SharedFileKey key;
    uint32_t limit;
    std::string name;
    std::vector<ModelRecord> records;

    uint32_t combined() const {
        uint32_t mode = 0;
        for (const ModelRecord &r : records)
            if (r.isOpen) mode |= r.mode;
        return mode;
    }
    uint32_t opens() const {
        return static_cast<uint32_t>(
            std::count_if(records.begin(), records.end(), [](auto &r) { return r.isOpen; }));
    }
};

// One call and what came of it. Fields that a call does not use stay 0.
struct TableCall {
    enum Kind : uint32_t { Open, Close, IsOpen, Info, Lock, Unlock, Test, Holders, SetMode, Clean };
    Kind kind;
    uint32_t owner, handle;
    SharedFileKey key;
    uint32_t mode;      // mode word, lock or test flags, process id to clean
    uint32_t maxOpens;  // or the capacity for holders
    int64_t offset, length;
    uint64_t nameSize;
    char name[48];
};

struct TableAnswer {
    int code;
    uint32_t combined, count;
    int64_t length;
    std::array<uint32_t, 4> pids;
    std::array<char, 40> name;
    bool operator==(const TableAnswer &) const = default;
};

// The outputs as they are before every call, so that what must not be written shows.
inline TableAnswer blankAnswer(const TableCall &call) {
    TableAnswer answer{-1, 0xC0C0C0C0u, 0xC1C1C1C1u, call.length, {}, {}};
    answer.pids.fill(0xC2C2C2C2u);
    answer.name.fill('#');
    return answer;
}

class LockTableModel {
public:
    LockTableModel(size_t entries, size_t records) : entries_(entries), records_(records) {}

    const std::vector<ModelFile> &files() const { return files_; }

    TableAnswer run(uint32_t pid, const TableCall &call) {
        TableAnswer answer = blankAnswer(call);
        answer.code = codeOf(pid, call, answer);
        return answer;
    }

private:
    int codeOf(uint32_t pid, const TableCall &call, TableAnswer &answer) {
        const ModelRecord caller{pid, call.owner, call.handle, false, 0, 0, call.mode};
        ModelFile *file = find(call.key);
        // clang-format off
        switch (call.kind) {
        case TableCall::Open: return open(file, caller, call, answer);
        case TableCall::Close: return close(file, caller);
        case TableCall::IsOpen: return file != nullptr;
        case TableCall::Info: return info(file, call, answer);
        case TableCall::Lock: return lock(file, withRange(caller, call));
        case TableCall::Unlock: return unlock(file, withRange(caller, call));
        case TableCall::Test: return test(file, withRange(caller, call), answer);
        case TableCall::Holders: return holders(file, call, answer);
        case TableCall::SetMode: return setMode(file, caller);
        case TableCall::Clean: return clean(call.mode);
        }
        // clang-format on
        std::abort();
    }
    ModelFile *find(const SharedFileKey &key) {
        for (ModelFile &file : files_)
            if (file.key.word0 == key.word0 && file.key.word1 == key.word1) return &file;
        return nullptr;
    }
    bool recordsAreOut() const {
        size_t used = 0;
        for (const ModelFile &file : files_)
            used += file.records.size();
        return used == records_;
    }
    static ModelRecord withRange(ModelRecord record, const TableCall &call) {
        record.start = static_cast<uint64_t>(call.offset);
        record.stop = call.length == -1 ? uint64_t{1} << 63
                                        : record.start + static_cast<uint64_t>(call.length);
        return record;
    }
    void forgetIfBare(const ModelFile *file) {
        if (file->records.empty()) files_.erase(files_.begin() + (file - files_.data()));
    }
    template <class Which>
    static void drop(ModelFile &file, Which which) {
        std::erase_if(file.records, which);
    }

    static bool clash(uint32_t denier, uint32_t other) {
        const uint32_t denied = (denier >> 4) & 7;
        return ((denied & 1) && (other & 1)) || ((denied & 2) && (other & 2)) ||
               ((denied & 4) && (other & 8) && (denier & 0xB));
    }
    static bool ownerLetsIn(const ModelFile &file, const ModelRecord &caller, uint32_t mode) {
        const uint32_t compat = 0x20000000, override = 0x40000000;
        if ((mode & (compat | override)) == 0) return false;
        for (const ModelRecord &r : file.records) {
            if (!r.isOpen || r.pid != caller.pid || r.owner != caller.owner) continue;
            if (r.mode & override) return true;
            if ((r.mode & compat) && (mode & compat)) return !(mode & 2) || (r.mode & 2);
        }
        return false;
    }
    int open(ModelFile *file, ModelRecord caller, const TableCall &call, TableAnswer &answer) {
        uint32_t mode = call.mode & ~0x100000u;
        if (file != nullptr) {
            answer.combined = file->combined();
            if (!(call.mode & 0x100000) && (file->combined() & 0x500)) return SHARED_ERR_OPLOCK;
            const bool full = file->limit != 0 && file->opens() >= file->limit;
            if (!full && !clash(mode, file->combined()) && !clash(file->combined(), mode)) {
                mode &= 0xFFFF80FF;
            } else if (!ownerLetsIn(*file, caller, mode)) {
                return SHARED_ERR_DENIED;
            }
            answer.combined = blankAnswer(call).combined;
        }
        if (file == nullptr && files_.size() == entries_) return SHARED_ERR_NOLOCKS;
        if (recordsAreOut()) {
            if (file != nullptr) forgetIfBare(file);
            return SHARED_ERR_NOLOCKS;
        }
        if (file == nullptr) {
            std::string name = call.name;
            if (name.size() > 32) name = name.substr(name.size() - 32);
            files_.push_back({call.key, call.maxOpens, name, {}});
            file = &files_.back();
        }
        caller.isOpen = true;
        caller.mode = mode;
        file->records.push_back(caller);
        answer.combined = file->combined();
        return 0;
    }
    int close(ModelFile *file, const ModelRecord &caller) {
        if (file == nullptr) return SHARED_ERR_NOTOPEN;
        drop(*file, [&](const ModelRecord &r) { return r.sameHolder(caller); });
        forgetIfBare(file);
        return 0;
    }
    static int info(const ModelFile *file, const TableCall &call, TableAnswer &answer) {
        answer.combined = file != nullptr ? file->combined() & 0xFFFF7FFF : 0;
        answer.count = file != nullptr ? file->opens() : 0;
        if (file == nullptr) return SHARED_ERR_NOTOPEN;
        std::string padded = file->name;
        padded.resize(32, '\0');
        if (call.nameSize != 0) {
            const std::string part = padded.substr(0, call.nameSize - 1);
            std::copy(part.begin(), part.end(), answer.name.begin());
            answer.name[part.size()] = '\0';
        }
        return 0;
    }
    int lock(ModelFile *file, const ModelRecord &wanted) {
        if (file == nullptr) return SHARED_ERR_NOTOPEN;
        for (const ModelRecord &r : file->records) {
            const bool own = r.sameHolder(wanted);
            const bool exclusive = (r.mode & 2) || (wanted.mode & 2);
            if (r.meets(wanted) && exclusive && !(own && (wanted.mode & 1))) {
                return own ? SHARED_ERR_SELFLOCKED : SHARED_ERR_LOCKED;
            }
        }
        if (recordsAreOut()) return SHARED_ERR_NOLOCKS;
        file->records.push_back(wanted);
        return 0;
    }
    static int unlock(ModelFile *file, const ModelRecord &wanted) {
        if (file == nullptr) return SHARED_ERR_NOTLOCKED;
        const auto found =
            std::find_if(file->records.begin(), file->records.end(), [&](const ModelRecord &r) {
                return !r.isOpen && r.sameHolder(wanted) && r.start == wanted.start &&
                       r.stop == wanted.stop;
            });
        if (found == file->records.end()) return SHARED_ERR_NOTLOCKED;
        file->records.erase(found);  // the file stays known even with nothing left on it
        return 0;
    }
    // Looks at all locks in the way and takes the nearest, where the table walks and shortens.
    static int test(const ModelFile *file, const ModelRecord &wanted, TableAnswer &answer) {
        if (file == nullptr) return 0;
        uint64_t nearest = UINT64_MAX;
        for (const ModelRecord &r : file->records) {
            const bool own = r.sameHolder(wanted);
            if (!r.meets(wanted)) continue;
            const bool stopsReader = !own && (r.mode & 2);
            const bool stopsWriter =
                !(own && (r.mode & 2)) && !(own && (r.mode & 1) && (wanted.mode & 1));
            if (!stopsReader && !((wanted.mode & 2) && stopsWriter)) continue;
            nearest = std::min(nearest, std::max(r.start, wanted.start));
        }
        if (nearest != UINT64_MAX) answer.length = static_cast<int64_t>(nearest - wanted.start);
        return 0;
    }
    static int holders(const ModelFile *file, const TableCall &call, TableAnswer &answer) {
        answer.count = 0;
        if (file == nullptr) return 0;
        for (const ModelRecord &r : file->records) {
            if (!r.isOpen || !(r.mode & 0x700) || answer.count == call.maxOpens) continue;
            answer.pids[answer.count++] = r.pid;
        }
        return 0;
    }
    static int setMode(ModelFile *file, const ModelRecord &caller) {
        if (file == nullptr) return SHARED_ERR_NOTOPEN;
        for (ModelRecord &r : file->records) {
            if (!r.sameHolder(caller)) continue;
            if ((caller.mode & 0x700) && !(r.mode & 0x700)) return SHARED_ERR_OPLOCK;
            r.mode = caller.mode;
            return 0;
        }
        return SHARED_ERR_DENIED;
    }
    int clean(uint32_t pid) {
        for (ModelFile &file : files_)
            drop(file, [pid](const ModelRecord &r) { return r.pid == pid; });
        std::erase_if(files_, [](const ModelFile &file) { return file.records.empty(); });
        return 0;
    }

    size_t entries_, records_;
    std::vector<ModelFile> files_;
};
