// Reading /proc.
#pragma once

#include <cstdint>
#include <dirent.h>
#include <string>
#include <string_view>

// The entries of a directory whose names are numbers: processes, threads, descriptors.
class NumberedEntries {
public:
    explicit NumberedEntries(const std::string &path) : dir_(::opendir(path.c_str())) {}
    ~NumberedEntries() {
        if (dir_) (void)::closedir(dir_);
    }
    NumberedEntries(const NumberedEntries &) = delete;
    NumberedEntries &operator=(const NumberedEntries &) = delete;

    bool isOpen() const { return dir_ != nullptr; }

    // False behind the last.
    bool next(uint32_t *number);

private:
    DIR *dir_;
};

// "/proc/4711/maps"
std::string procPath(uint32_t pid, const char *name);

// A file of /proc as a whole. Empty if it cannot be read; errno is then 0 or says why.
std::string readText(const std::string &path);

// Calls visit(line) with every line, without its newline.
template <class Visit>
void eachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        visit(std::string(text.substr(0, end)));
        if (end == text.npos) return;
        text.remove_prefix(end + 1);
    }
}

// The file in a line of /proc/PID/maps: its fourth and fifth word, device and inode.
std::string mappedFile(const std::string &mapsLine);
