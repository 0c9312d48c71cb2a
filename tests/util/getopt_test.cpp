#include "iosched/util.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Words = std::vector<const char *>;

// The words behind the program's name and before the null pointer that ends them.
std::vector<char *> vectorOf(const Words &words) {
    std::vector<char *> vector{const_cast<char *>("/bin/prog")};
    for (const char *word : words)
        vector.push_back(const_cast<char *>(word));  // literals: whoever writes to one dies
    vector.push_back(nullptr);
    return vector;
}

// One call as a word: the option and its argument, an error with its option and message, or the
// index at which the scan has ended.
std::string next(const std::vector<char *> &vector, const char *optstring) {
    ZORoptarg = nullptr;
    ZORoptopt = 0;
    ::testing::internal::CaptureStderr();
    const int result = ZORgetopt(static_cast<int>(vector.size()) - 1, vector.data(), optstring);
    const std::string message = ::testing::internal::GetCapturedStderr();
    std::ostringstream seen;
    if (result == -1) {
        seen << "@" << ZORoptind;
    } else if (result < 0) {
        seen << result;
    } else {
        seen << static_cast<char>(result);
    }
    if (ZORoptarg != nullptr) seen << "=" << ZORoptarg;
    if (ZORoptopt != 0) seen << "(" << ZORoptopt << ")";
    return seen.str() + message;
}

std::string parse(const Words &words, const char *optstring) {
    const std::vector<char *> vector = vectorOf(words);
    std::string seen;
    do {
        seen += next(vector, optstring) + " ";
    } while (seen.rfind('@') == std::string::npos);
    seen.pop_back();
    return seen;
}

class Getopt : public ::testing::Test {
protected:
    Getopt() { ZORoptind = ZORopterr = 1; }
};

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

TEST_F(Getopt, EachVectorGivesItsOptionsArgumentsErrorsAndEnd) {
    for (const auto &row : kRows) {
        for (const int start : {0, 1}) {  // 0 counts as 1
            ZORoptind = start;
            EXPECT_EQ(parse(row.words, row.optstring), row.seen) << row.optstring;
        }
    }
}

TEST_F(Getopt, ZORopterrSilencesTheMessagesAndNothingElse) {
    ZORopterr = 0;
    EXPECT_EQ(parse({"-xb"}, ":b:"), "?(120) :(98) @2");
}

TEST_F(Getopt, NullPointerAndNotTheCountDecidesWhetherAnArgumentIsMissing) {
    const std::vector<char *> vector = vectorOf({"-b", "value", "-b"});
    EXPECT_EQ(ZORgetopt(2, vector.data(), "b:"), 'b');
    EXPECT_STREQ(ZORoptarg, "value");
    EXPECT_EQ(ZORgetopt(3, vector.data(), "b:"), -1);  // the count ends the scan all the same
    EXPECT_EQ(ZORoptind, 3);
}

TEST_F(Getopt, ResettingOrMovingTheIndexAbandonsAGroup) {
    const std::vector<char *> vector = vectorOf({"-abc", "operand", "-d", "-evalue", "x", "-a"});
    EXPECT_EQ(next(vector, "abcd"), "a");
    ZORoptind = 3;
    EXPECT_EQ(next(vector, "abcd"), "d");
    ZORoptind = 1;
    EXPECT_EQ(next(vector, "abcd"), "a");
    ZORoptreset = 1;
    EXPECT_EQ(next(vector, "abcd"), "@2");
    EXPECT_EQ(ZORoptreset, 0);
    // A short word that the caller skips itself: nothing is read behind its end.
    ZORoptind = 4;
    EXPECT_EQ(next(vector, "ae:"), "e=value");
    ZORoptind = 6;
    EXPECT_EQ(next(vector, "ae:"), "a");
}

}  // namespace
