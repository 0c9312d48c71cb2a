#include "request.h"

#include <strings.h>

namespace {

void doHelp(Connection &connection, Words &words);

void doQuit(Connection &connection, Words &) {
    connection.reply("OK bye");
    connection.quit();
}

constexpr struct {
    std::string_view name;
    void (*serve)(Connection &, Words &);
    const char *usage;
} kVerbs[] = {
    {"OPEN", doOpen,
     "OPEN words path             e.g. OPEN read,write,deny-write,create notes.txt"},
    {"READ", doRead, "READ handle offset length    length -1: to the end"},
    {"WRITE", doWrite,
     "WRITE handle offset text     \\n and \\\\ in the text are a newline and one \\"},
    {"LOCK", doLock, "LOCK handle shared|exclusive offset length"},
    {"UNLOCK", doUnlock, "UNLOCK handle offset length  exactly as it was locked"},
    {"TEST", doTest, "TEST handle read|write offset length"},
    {"MODE", doMode, "MODE handle words            deny and oplock words from now on, or none"},
    {"CLOSE", doClose, "CLOSE handle"},
    {"INFO", doInfo, "INFO path                    who has it open, and how"},
    {"HOLDERS", doHolders, "HOLDERS path                 processes that hold an oplock on it"},
    {"DF", doDf, "DF                           room on the file system"},
    {"RUN", doRun, "RUN command line             streams its output, if the server allows it"},
    {"SLEEP", doSleep, "SLEEP ms"},
    {"NAP", doNap, "NAP ms                       a sleep inside the server's loop"},
    {"SYSTEM", doSystem, "SYSTEM command line          waits for its end, if the server allows it"},
    {"STATS", doStats, "STATS"},
    {"HELP", doHelp, "HELP"},
    {"QUIT", doQuit, "QUIT"},
};

void doHelp(Connection &connection, Words &) {
    for (const auto &verb : kVerbs)
        connection.info("%s", verb.usage);
    connection.reply(
        "OK words: read write delete, deny-read deny-write deny-delete, oplock-exclusive "
        "oplock-shared oplock-batch, ignore-oplocks create max=N");
}

bool sameWord(std::string_view word, std::string_view name) {
    return word.size() == name.size() && strncasecmp(word.data(), name.data(), name.size()) == 0;
}

}  // namespace

void runRequest(Connection &connection, std::string_view line) {
    if (line.find('\0') != std::string_view::npos) {
        connection.reply("ERR LINE holds a NUL byte");
        return;
    }
    Words words(line);
    const std::string_view name = words.next();
    for (const auto &verb : kVerbs)
        if (sameWord(name, verb.name)) return verb.serve(connection, words);
    connection.reply("ERR VERB unknown request; HELP lists them");
}
