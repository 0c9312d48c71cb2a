#include "image.h"

#include "proc.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace {

constexpr size_t kPieceBytes = 65536;

// A copy larger than half of the machine's memory would do it more harm than good.
uint64_t largestImage() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageBytes = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageBytes <= 0) return uint64_t{1} << 30;
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageBytes) / 2;
}

// The name is read off a mapping of our own, of one page, which is never touched.
std::string mapsNameOf(int fd) {
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void *const view = ::mmap(nullptr, page, PROT_READ, MAP_SHARED, fd, 0);
    if (view == MAP_FAILED) return {};
    std::string name;
    const std::string begin = printed("%zx-", reinterpret_cast<uintptr_t>(view));
    eachLine(readText("/proc/self/maps"), [&](const std::string &line) {
        if (line.starts_with(begin)) name = mappedFile(line);
    });
    (void)::munmap(view, page);
    return name;
}

}  // namespace

bool ArenaFile::open(const char *path, std::string *error) {
    // Without O_NONBLOCK a FIFO of that name would make us wait. O_NOATIME is for owners only.
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    int fd = ::open(path, kFlags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = ::open(path, kFlags);
    fd_.reset(fd);
    struct stat status;
    if (fd < 0 || ::fstat(fd, &status) < 0) {
        *error = printed("%s: %s", path, std::strerror(errno));
        if (errno == ENOENT) *error += "; give the path of the arena file that the servers open";
        if (errno == EACCES) *error += "; run as the servers' user or as root";
        if (errno != ENOENT && errno != EACCES) *error += "; check the path";
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        *error = printed("%s: not a regular file; give the path of an arena, which is one", path);
        return false;
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    path_ = path;
    mapsName_ = mapsNameOf(fd);
    return true;
}

bool ArenaImage::resize(uint64_t size) {
    if (size > room_) {
        void *const larger = std::realloc(bytes_.get(), size);
        if (larger == nullptr) return false;
        (void)bytes_.release();  // realloc has freed it or handed it on
        bytes_.reset(static_cast<std::byte *>(larger));
        room_ = size;
    }
    if (size > size_) std::memset(bytes_.get() + size_, 0, size - size_);
    size_ = size;
    return true;
}

bool ArenaImage::refresh(const ArenaFile &file, bool *changed, std::string *error) {
    struct stat status;
    if (::fstat(file.descriptor(), &status) < 0) {
        *error = printed("%s: %s; try again", file.path().c_str(), std::strerror(errno));
        return false;
    }
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    *changed = size != size_;
    if (size > largestImage() || !resize(size)) {
        *error =
            printed("%s: %" PRIu64 " bytes are more than this machine can take a copy of; look "
                    "from one with more memory",
                    file.path().c_str(), size);
        return false;
    }
    static std::array<std::byte, kPieceBytes> piece;
    for (uint64_t done = 0; done < size_;) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(kPieceBytes, size_ - done));
        const ssize_t got =
            ::pread(file.descriptor(), piece.data(), wanted, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            *error = printed("%s: reading at %" PRIu64 ": %s; look at the disk",
                             file.path().c_str(), done, std::strerror(errno));
            return false;
        }
        if (got == 0) {  // it shrank since fstat
            *changed = true;
            size_ = done;
            break;
        }
        const size_t count = static_cast<size_t>(got);
        if (std::memcmp(bytes_.get() + done, piece.data(), count) != 0) {
            *changed = true;
            std::memcpy(bytes_.get() + done, piece.data(), count);
        }
        done += count;
    }
    return true;
}
