#include "iosched/util.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

// What a caller sees of one call.
struct Step {
    int result;
    int optind;
    const char *optarg;
    int optopt;
    bool operator==(const Step &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Step &step) {
    return out << step.result << " at " << step.optind << " arg "
               << (step.optarg ? step.optarg : "-") << " bad " << step.optopt;
}

// An argument vector with its terminating null pointer; element 0 is the program name.
class Vector {
public:
    explicit Vector(std::vector<std::string> words) : words_(std::move(words)) {
        words_.insert(words_.begin(), "/opt/bin/prog");
        for (std::string &word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }
    int count() const { return static_cast<int>(words_.size()); }
    char *const *argv() const { return pointers_.data(); }
    const std::string &word(size_t index) const { return words_[index]; }

private:
    std::vector<std::string> words_;
    std::vector<char *> pointers_;
};

Step nextStep(const Vector &vector, const char *optstring) {
    const int result = ZORgetopt(vector.count(), vector.argv(), optstring);
    return {result, ZORoptind, ZORoptarg, ZORoptopt};
}

std::vector<Step> parse(const Vector &vector, const char *optstring) {
    std::vector<Step> steps;
    do {
        steps.push_back(nextStep(vector, optstring));
    } while (steps.back().result != -1);
    return steps;
}

// A parser of its own: walks the whole vector in two plain loops, keeps no state between options,
// and collects what has to appear on standard error.
class Model {
public:
    Model(const Vector &vector, const std::string &optstring, Step start)
        : vector_(vector), optstring_(optstring), seen_(start) {
        size_t word = 1;
        while (word < size() && vector.word(word).size() > 1 && vector.word(word)[0] == '-') {
            if (vector.word(word++) == "--") break;
            word = walkGroup(word);
        }
        record(-1, word);
    }
    const std::vector<Step> &steps() const { return steps_; }
    const std::string &messages() const { return messages_; }

private:
    size_t size() const { return static_cast<size_t>(vector_.count()); }

    // The group in the word before `next`; returns the word to go on with.
    size_t walkGroup(size_t next) {
        const std::string &group = vector_.word(next - 1);
        for (size_t i = 1; i < group.size(); ++i) {
            const size_t place = optstring_.find(group[i]);
            if (place == std::string::npos) {
                fail('?', group[i], next, "illegal option");
            } else if (optstring_.substr(place + 1, 1) != ":") {
                record(group[i], next);
            } else if (i + 1 < group.size()) {
                seen_.optarg = group.c_str() + i + 1;
                record(group[i], next);
                return next;
            } else if (next < size()) {
                seen_.optarg = vector_.word(next).c_str();
                record(group[i], ++next);
            } else {
                fail(optstring_[0] == ':' ? ':' : '?', group[i], next,
                     "option requires an argument");
            }
        }
        return next;
    }
    void fail(int result, char option, size_t next, const char *complaint) {
        seen_.optopt = option;
        record(result, next);
        messages_ += "/opt/bin/prog: " + std::string(complaint) + " -- " + option + "\n";
    }
    void record(int result, size_t next) {
        seen_.result = result;
        seen_.optind = static_cast<int>(next);
        steps_.push_back(seen_);
    }

    const Vector &vector_;
    std::string optstring_;
    Step seen_;
    std::vector<Step> steps_;
    std::string messages_;
};

std::string randomText(std::mt19937 &random, const char *alphabet, size_t longest) {
    const std::string letters = alphabet;
    std::string text(random() % (longest + 1), ' ');
    for (char &letter : text)
        letter = letters[random() % letters.size()];
    return text;
}

class Getopt : public ::testing::Test {
protected:
    Getopt() {
        ZORoptind = 1;
        ZORopterr = 1;
    }
};

TEST_F(Getopt, AgreesWithAParserWrittenApartOverRandomVectors) {
    std::mt19937 random(20261);
    std::string messages;
    ::testing::internal::CaptureStderr();
    for (int round = 0; round < 40000; ++round) {
        // Words of options, operands, "-", "--" and bytes above 127, many of them ill-formed.
        std::vector<std::string> words(random() % 6);
        for (std::string &word : words) {
            word = (random() % 4 ? "-" : "") + randomText(random, "abc:-x\xe9", 4);
        }
        const Vector vector(words);
        const std::string optstring = randomText(random, "abc::\xe9", 6);
        const Model model(vector, optstring, {0, 0, ZORoptarg, ZORoptopt});
        ZORoptind = round % 2;  // 0 counts as 1
        ASSERT_EQ(parse(vector, optstring.c_str()), model.steps()) << "optstring " << optstring;
        messages += model.messages();
        ZORoptarg = nullptr;  // it pointed into the vector
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), messages);
}

TEST_F(Getopt, OnlyZORopterrSilencesTheMessages) {
    const Vector vector({"-xb"});
    ::testing::internal::CaptureStderr();
    (void)parse(vector, ":b:");
    ZORopterr = 0;
    ZORoptind = 1;
    (void)parse(vector, ":b:");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "/opt/bin/prog: illegal option -- x\n"
              "/opt/bin/prog: option requires an argument -- b\n");
}

TEST_F(Getopt, NullPointerAndNotTheCountDecidesWhetherAnArgumentIsMissing) {
    const Vector vector({"-b", "value"});
    EXPECT_EQ(ZORgetopt(2, vector.argv(), "b:"), 'b');
    EXPECT_STREQ(ZORoptarg, "value");
    EXPECT_EQ(ZORoptind, 3);
    EXPECT_EQ(ZORgetopt(2, vector.argv(), "b:"), -1);
    EXPECT_EQ(ZORoptind, 3);
}

TEST_F(Getopt, ResettingOrMovingTheIndexAbandonsAGroup) {
    const Vector vector({"-abc", "operand", "-d"});
    EXPECT_EQ(nextStep(vector, "abcd").result, 'a');
    ZORoptind = 3;
    EXPECT_EQ(nextStep(vector, "abcd").result, 'd');
    ZORoptind = 1;
    EXPECT_EQ(nextStep(vector, "abcd").result, 'a');
    ZORoptreset = 1;
    EXPECT_EQ(nextStep(vector, "abcd").result, -1);
    EXPECT_EQ(ZORoptreset, 0);
}

// The caller takes a short word by itself right after an option whose argument ended its group.
TEST_F(Getopt, SkippingAWordByHandReadsNothingBehindItsEnd) {
    const Vector vector({"-bvalue", "x", "-a"});
    EXPECT_EQ(nextStep(vector, "ab:").result, 'b');
    ++ZORoptind;
    EXPECT_EQ(nextStep(vector, "ab:").result, 'a');
}

}  // namespace
