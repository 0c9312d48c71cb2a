#include "iosched/util.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Words = std::vector<const char *>;

// The words behind the program's name and before the null pointer that ends them.
std::vector<char *> vectorOf(Words words) {
    words.insert(words.begin(), "/bin/prog");
    words.push_back(nullptr);
    std::vector<char *> vector;
    for (const char *word : words)
        vector.push_back(const_cast<char *>(word));  // literals: whoever writes to one dies
    return vector;
}

// One call as a word: the option and its argument, an error with its option and message, or the
// index at which the scan has ended.
std::string next(const std::vector<char *> &vector, const char *optstring) {
    ZORoptarg = nullptr;
    ZORoptopt = 0;
    ::testing::internal::CaptureStderr();
    const int result = ZORgetopt(static_cast<int>(vector.size()) - 1, vector.data(), optstring);
    std::string seen = result > 0     ? std::string(1, static_cast<char>(result))
                       : result == -1 ? "@" + std::to_string(ZORoptind)
                                      : std::to_string(result);
    if (ZORoptarg != nullptr) seen += std::string("=") + ZORoptarg;
    if (ZORoptopt != 0) seen += "(" + std::to_string(ZORoptopt) + ")";
    return seen + ::testing::internal::GetCapturedStderr();
}

std::string parse(const Words &words, const char *optstring) {
    const std::vector<char *> vector = vectorOf(words);
    std::string seen = next(vector, optstring);
    while (seen.rfind('@') == std::string::npos)
        seen += " " + next(vector, optstring);
    return seen;
}

const struct {
    Words words;
    const char *optstring;
    const char *seen;
} kRows[] = {
    {{}, "a", "@1"},
    {{""}, "a", "@1"},
    {{"-", "-a"}, "a-", "@1"},
    {{"file", "-a"}, "a", "@1"},
    {{"--", "-a"}, "a", "@2"},
    {{"-a", "--", "-b"}, "ab", "a @3"},
    {{"-a", "-bval", "file"}, "ab:", "a b=val @3"},
    {{"-ab", "val"}, "ab:", "a b=val @3"},
    {{"-abc", "-c"}, "cba", "a b c c @3"},
    {{"-aa", "x", "-a"}, "a", "a a @2"},
    {{"-bval", "-a", "-b", "-a"}, "ab:", "b=val a b=-a @5"},
    {{"-b", "--", "-a"}, "ab:", "b=-- a @4"},
    {{"-b", "", "-a"}, "ab:", "b= a @4"},
    {{"-b:", "-abb"}, "ab::", "b=: a b=b @3"},
    {{"-ba", "x"}, ":ba", "b a @2"},
    {{"--a", "-a-"}, "a-", "- a a - @3"},
    {{"-:", "-a", "x"}, "a:", ": a=x @4"},
    {{"-\xe9"}, "\xe9", "-23 @2"},
    {{"-\xe9"}, "a", "?(-23)/bin/prog: illegal option -- \xe9\n @2"},
    {{"-xa"}, "a", "?(120)/bin/prog: illegal option -- x\n a @2"},
    {{"-x", "-a"}, ":a", "?(120)/bin/prog: illegal option -- x\n a @3"},
    {{"-a", "-b"}, "ab:", "a ?(98)/bin/prog: option requires an argument -- b\n @3"},
    {{"-ab"}, ":ab:", "a :(98)/bin/prog: option requires an argument -- b\n @2"},
};

TEST(Getopt, EachVectorGivesItsOptionsArgumentsErrorsAndEnd) {
    for (const auto &row : kRows) {
        for (const int start : {0, 1}) {  // 0 counts as 1
            ZORoptind = start;
            EXPECT_EQ(parse(row.words, row.optstring), row.seen) << row.optstring;
        }
    }
    ZORoptind = 1;
    ZORopterr = 0;  // no messages, and nothing else is different
    EXPECT_EQ(parse({"-xb"}, ":b:"), "?(120) :(98) @2");
    ZORopterr = 1;
}

TEST(Getopt, NullPointerAndNotTheCountDecidesWhetherAnArgumentIsMissing) {
    const std::vector<char *> vector = vectorOf({"-b", "value", "-b"});
    ZORoptind = 1;
    EXPECT_EQ(ZORgetopt(2, vector.data(), "b:"), 'b');
    EXPECT_STREQ(ZORoptarg, "value");
    EXPECT_EQ(ZORgetopt(3, vector.data(), "b:"), -1);  // the count ends the scan all the same
    EXPECT_EQ(ZORoptind, 3);
}

TEST(Getopt, ResettingOrMovingTheIndexAbandonsAGroup) {
    const std::vector<char *> vector = vectorOf({"-abc", "operand", "-d", "-evalue", "x", "-a"});
    // Where the caller moves the index to, 0 for a reset, and what the next call sees. The last move
    // skips a short word: nothing is read behind its end.
    const struct {
        int index;
        const char *seen;
    } kMoves[] = {{1, "a"}, {3, "d"}, {1, "a"}, {0, "@2"}, {4, "e=value"}, {6, "a"}};
    for (const auto &move : kMoves) {
        (move.index != 0 ? ZORoptind : ZORoptreset) = move.index != 0 ? move.index : 1;
        EXPECT_EQ(next(vector, "abcde:"), move.seen);
        EXPECT_EQ(ZORoptreset, 0);
    }
}

}  // namespace
