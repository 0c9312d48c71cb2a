#include "iosched/util.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr size_t kBufferBytes = 16;
constexpr char kText[] = "0123456789";

std::string bufferWith(const std::string &text) {
    std::string buffer(kBufferBytes, '~');
    return buffer.replace(0, text.size() + 1, text.c_str(), text.size() + 1);
}

TEST(Strlcpy, EveryLengthAndSizeAgreesWithItsDefinition) {
    for (size_t length = 0; length <= 10; ++length) {
        const std::string src(kText, length);
        for (size_t size = 0; size <= kBufferBytes; ++size) {
            std::string dst(kBufferBytes, '~');
            std::string expected = dst;
            if (size > 0) {
                const size_t kept = std::min(length, size - 1);
                expected.replace(0, kept, src, 0, kept);
                expected[kept] = '\0';
            }
            EXPECT_EQ(strlcpy(dst.data(), src.c_str(), size), length);
            EXPECT_EQ(dst, expected) << "length " << length << " size " << size;
        }
    }
}

TEST(Strlcat, EveryLengthAndSizeAgreesWithItsDefinition) {
    for (size_t before = 0; before <= 5; ++before) {
        for (size_t length = 0; length <= 10; ++length) {
            const std::string head(before, 'h'), src(kText, length);
            for (size_t size = 0; size <= kBufferBytes; ++size) {
                std::string dst = bufferWith(head), expected = dst;
                if (before < size) {
                    const std::string joined = (head + src).substr(0, size - 1);
                    expected.replace(0, joined.size(), joined);
                    expected[joined.size()] = '\0';
                }
                EXPECT_EQ(strlcat(dst.data(), src.c_str(), size), before + length);
                EXPECT_EQ(dst, expected) << before << "+" << length << " size " << size;
            }
        }
    }
}

}  // namespace
