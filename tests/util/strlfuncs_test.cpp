#include "iosched/util.h"

#include <gtest/gtest.h>
#include <string>

namespace {

// What `tail` appended at `kept` leaves in a buffer of `size` bytes.
std::string appended(std::string buffer, size_t kept, const std::string &tail, size_t size) {
    if (kept >= size) return buffer;
    const std::string text = tail.substr(0, size - 1 - kept) + '\0';
    return buffer.replace(kept, text.size(), text);
}

TEST(Strlfuncs, EveryLengthAndSizeAgreesWithTheDefinition) {
    for (size_t before = 0; before <= 5; ++before) {
        for (size_t length = 0; length <= 10; ++length) {
            const std::string src = std::string("0123456789").substr(0, length);
            for (size_t size = 0; size <= 16; ++size) {
                std::string dst(16, '~');
                std::string expected = appended(dst, 0, src, size);
                EXPECT_EQ(strlcpy(dst.data(), src.c_str(), size), length);
                EXPECT_EQ(dst, expected) << "length " << length << " size " << size;
                dst.assign(before, 'h').append(1, '\0').resize(16, '~');
                expected = appended(dst, before, src, size);
                EXPECT_EQ(strlcat(dst.data(), src.c_str(), size), before + length);
                EXPECT_EQ(dst, expected) << before << "+" << length << " size " << size;
            }
        }
    }
}

}  // namespace
