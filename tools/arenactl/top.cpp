// The figures come from a copy a second, like those of all other commands. How busy the mutexes are
// does not show in one copy: their words are looked at a hundred times in between.
#include "top.h"

#include "commands.h"
#include "mutex_words.h"
#include "waiting.h"
#include "words.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <set>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

constexpr int kLookMs = 1000;
constexpr int kGlanceMs = 10;
constexpr int kCopyMs = 100;  // for a moment at which nothing changes

// Set by a signal that ends the program, so that the terminal is put right first.
volatile std::sig_atomic_t isInterrupted = 0;

// The terminal as a screen to draw on, from construction to destruction.
class Screen {
public:
    Screen() {
        isTerminal_ = ::isatty(STDOUT_FILENO) != 0 && ::isatty(STDIN_FILENO) != 0 &&
                      ::tcgetattr(STDIN_FILENO, &before_) == 0;
        if (!isTerminal_) return;
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        (void)::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        (void)std::fputs("\x1b[?1049h\x1b[?25l", stdout);  // another page, no cursor
    }
    ~Screen() {
        if (!isTerminal_) return;
        (void)std::fputs("\x1b[?25h\x1b[?1049l", stdout);
        (void)std::fflush(stdout);
        (void)::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    bool isTerminal() const { return isTerminal_; }

    // As many of the lines as there is room for, each cut at the right edge.
    bool draw(const std::string &text) const {
        winsize size{};
        if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0 || size.ws_row == 0)
            size = {24, 80, 0, 0};
        std::string page = "\x1b[H";
        size_t at = 0;
        for (int row = 1; row < size.ws_row && at < text.size(); row++) {
            const size_t end = std::min(text.find('\n', at), text.size());
            page += text.substr(at, std::min<size_t>(end - at, size.ws_col)) + "\x1b[K\r\n";
            at = end + 1;
        }
        return print(page + "\x1b[J");
    }

    static bool print(const std::string &text) {
        return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
               std::fflush(stdout) == 0;
    }

private:
    bool isTerminal_ = false;
    termios before_{};
};

// How a mutex looked at many moments.
struct Glances {
    uint64_t offset;
    int held = 0;
    int waitedFor = 0;
};

struct Watch {
    std::vector<Glances> mutexes;
    int glances = 0;

    explicit Watch(const ArenaModel &model) {
        for (const MutexState &mutex : model.mutexes)
            mutexes.push_back({mutex.offset});
    }

    void glance(const ArenaFile &file) {
        glances++;
        for (Glances &glancesAt : mutexes) {
            SharedMutex mutex{};
            if (::pread(file.descriptor(), &mutex, sizeof mutex,
                        static_cast<off_t>(glancesAt.offset)) != sizeof mutex)
                continue;
            const uint32_t word = mutexWords(mutex).lock;
            glancesAt.held += word != 0;
            glancesAt.waitedFor += word > 1;
        }
    }

    std::string text(uint64_t offset) const {
        for (const Glances &mutex : mutexes) {
            if (mutex.offset == offset)
                return printed(" mutex: held in %d of %d glances, waited for in %d\n", mutex.held,
                               glances, mutex.waitedFor);
        }
        return "\n";
    }
};

struct FileLine {
    std::string name;
    size_t opens, ranges, holders;
};

FileLine lineOf(const TableFile &file) {
    std::set<uint32_t> pids;
    size_t opens = 0;
    for (const TableRecord &record : file.records) {
        pids.insert(record.pid);
        opens += record.isOpen;
    }
    return {file.name, opens, file.records.size() - opens, pids.size()};
}

std::string tableText(const LockTable &table, const Watch &watch) {
    std::string text = "table " + quoted(table.name);
    if (!table.readable) return text + ": damaged, see arenactl check\n";
    std::set<uint32_t> pids;
    uint64_t opens = 0;
    for (const TableFile &file : table.files) {
        opens += lineOf(file).opens;
        for (const TableRecord &record : file.records)
            pids.insert(record.pid);
    }
    const uint64_t used = table.recordsInUse();
    return text +
           printed(": files %zu of %" PRIu64 ", records %" PRIu64 " of %" PRIu64 ", opens %" PRIu64
                   ", ranges %" PRIu64 ", holders %zu\n",
                   table.files.size(), table.fileEntries, used, table.lockRecords, opens,
                   used - opens, pids.size()) +
           text + watch.text(table.offset);
}

std::string summary(const ArenaModel &model, const Watch &watch) {
    const FreeSpace space = freeSpace(model);
    std::string text = printed(
        "heap: free %s in %s, the largest %" PRIu64 "; %s\n", byteWords(space.bytes).c_str(),
        counted(space.blocks, "block", "blocks").c_str(), space.largest, watch.text(0).c_str());
    for (const LockTable &table : model.tables)
        text += tableText(table, watch);
    return text;
}

// The files of all tables, by what the key says: the most first, or by name.
std::string filesText(const ArenaModel &model, char key) {
    std::vector<FileLine> lines;
    for (const LockTable &table : model.tables) {
        for (const TableFile &file : table.files)
            lines.push_back(lineOf(file));
    }
    std::stable_sort(lines.begin(), lines.end(), [key](const FileLine &a, const FileLine &b) {
        if (key == 'n') return a.name < b.name;
        if (key == 'r') return a.ranges > b.ranges;
        return key == 'h' ? a.holders > b.holders : a.opens > b.opens;
    });
    Columns columns({0, 1, 2});
    columns.row({"opens", "ranges", "holders", "file"});
    for (const FileLine &line : lines)
        columns.row({std::to_string(line.opens), std::to_string(line.ranges),
                     std::to_string(line.holders), quoted(line.name)});
    return columns.text();
}

std::string clockText() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[16];
    (void)::localtime_r(&now, &local);
    return {text, std::strftime(text, sizeof text, "%H:%M:%S", &local)};
}

class Top {
public:
    Top(const char *path, std::string *error) : path_(path), error_(error) {}

    bool run(int looks) {
        for (int look = 0; !isDone_ && (looks == 0 || look < looks); look++) {
            Examination exam;
            if (!examineArena(path_, kCopyMs, &exam, error_)) return false;
            Watch watch(exam.model);
            // Nothing is shown before the mutexes have been watched for a second.
            for (const int64_t end = nowMs() + kLookMs; nowMs() < end && !isDone_;) {
                watch.glance(exam.file);
                awaitKey(exam.model);
            }
            if (!show(exam, watch)) return false;
        }
        return true;
    }

private:
    bool show(const Examination &exam, const Watch &watch) {
        summary_ = clockText() + (exam.exact ? "" : " (in use all the time: a best effort)") +
                   (exam.damaged() ? " (something is wrong: see arenactl check)\n" : "\n") +
                   summary(exam.model, watch);
        if (screen_.isTerminal() ? drawFiles(exam.model) : Screen::print(summary_)) return true;
        *error_ =
            std::string("standard output: ") + std::strerror(errno) + "; nobody sees the figures";
        return false;
    }

    bool drawFiles(const ArenaModel &model) const {
        return screen_.draw("arena " + quoted(path_) +
                            "   sort by [o]pens [r]anges [h]olders [n]ame, [q]uit\n" + summary_ +
                            "\n" + filesText(model, key_));
    }

    void awaitKey(const ArenaModel &model) {
        pollfd input{screen_.isTerminal() ? STDIN_FILENO : -1, POLLIN, 0};
        if (::poll(&input, 1, kGlanceMs) > 0) {
            char key = 'q';  // also where the terminal has gone
            (void)!::read(STDIN_FILENO, &key, 1);
            isDone_ = key == 'q';
            if (std::strchr("orhn", key) != nullptr) key_ = key;
            if (!isDone_) (void)drawFiles(model);
        }
        isDone_ = isDone_ || isInterrupted != 0;
    }

    const char *path_;
    std::string *error_;
    Screen screen_;
    std::string summary_;
    char key_ = 'o';
    bool isDone_ = false;
};

}  // namespace

bool watchArena(const char *path, int looks, std::string *error) {
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) { isInterrupted = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        (void)::sigaction(signal, &interrupt, nullptr);
    return Top(path, error).run(looks);
}
