// What the option parsers of the example programs have in common. Long words come through the
// parser of single letters: '-' as an option with an argument ("-:" in its list) reads "--word".
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iosched/sched.h>
#include <string_view>

class Options {
public:
    // The usage text comes in two parts, the second for what a program shares with others.
    constexpr Options(const char *program, const char *usage, const char *sharedUsage = "")
        : program_(program), usage_(usage), sharedUsage_(sharedUsage) {}

    // Ends the program with status 1 and one line that says what is wrong.
    [[noreturn]] __attribute__((format(printf, 2, 3))) void refuse(const char *format, ...) const {
        (void)fprintf(stderr, "%s: ", program_);
        va_list args;
        va_start(args, format);
        (void)vfprintf(stderr, format, args);
        va_end(args);
        (void)fprintf(stderr, "\n%s --help lists the options\n", program_);
        exit(1);
    }

    int number(int letter, const char *text, int lowest, int highest) const {
        char *end = nullptr;
        errno = 0;
        const long value = strtol(text, &end, 10);
        if (errno != 0 || end == text || *end != '\0' || value < lowest || value > highest)
            refuse("-%c %s: give a number from %d to %d", letter, text, lowest, highest);
        return static_cast<int>(value);
    }

    [[noreturn]] void help() const {
        (void)printf("%s%s", usage_, sharedUsage_);
        exit(0);
    }

    // The words that every program knows; any other is refused.
    [[noreturn]] void commonWord(std::string_view word) const {
        constexpr size_t kMarkLength = sizeof "@(#)" - 1;  // for what-style tools
        if (word == "help") help();
        if (word != "version")
            refuse("no such option: --%.*s", static_cast<int>(word.size()), word.data());
        (void)printf("%s, %s\n", program_, iosched_version + kMarkLength);
        exit(0);
    }

private:
    const char *program_, *usage_, *sharedUsage_;
};
