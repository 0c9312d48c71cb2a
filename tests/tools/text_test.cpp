#include "json.h"
#include "text.h"
#include "words.h"

#include <gtest/gtest.h>

TEST(ArenactlText, OnlyWholeShortestUtf8IsShownAsItIs) {
    EXPECT_EQ(quoted("gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "\"gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80\"");
    EXPECT_EQ(quoted("\xC3"), R"("\xc3")");          // cut short
    EXPECT_EQ(quoted("\xC0\xAF"), R"("\xc0\xaf")");  // too long for what it says
    EXPECT_EQ(quoted("\xE0\x80\x80"), R"("\xe0\x80\x80")");
    EXPECT_EQ(quoted("\xED\xA0\x80"), R"("\xed\xa0\x80")");          // half of a pair
    EXPECT_EQ(quoted("\xF4\x90\x80\x80"), R"("\xf4\x90\x80\x80")");  // beyond Unicode
    EXPECT_EQ(quoted("\x1b[2J\xC2\x9B"), R"("\x1b[2J\xc2\x9b")");    // would drive a terminal
    EXPECT_EQ(quoted("a\"b\\"), R"("a\"b\\")");
}

TEST(ArenactlText, JsonEscapesEveryByteThatIsNotUtf8) {
    JsonWriter json;
    json.beginObject();
    json.key("name").string("\xFF\x01\"\\\n\x7F\xC3\xA9");
    json.key("list").strings({});
    json.key("low").signedNumber(INT64_MIN);
    json.key("high").number(UINT64_MAX);
    json.endObject();
    EXPECT_EQ(json.text(), "{\n  \"name\": \"\\u00ff\\u0001\\\"\\\\\\u000a\\u007f\xC3\xA9\",\n"
                           "  \"list\": [],\n  \"low\": -9223372036854775808,\n"
                           "  \"high\": 18446744073709551615\n}\n");
}

TEST(ArenactlText, ModesAndRangesReadAsWords) {
    EXPECT_EQ(joined(modeWords(0)), "none");
    EXPECT_EQ(joined(modeWords(0x8000 | SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH)),
              "read, oplock-batch, 0x8000");
    const auto range = [](int64_t start, int64_t end) {
        return rangeWords({0, 1, 1, 1, start, end, 1, false});
    };
    EXPECT_EQ(range(0, 99), "bytes 0 to 99");
    EXPECT_EQ(range(5, INT64_MAX), "bytes from 5");
    EXPECT_EQ(range(5, 4), "no bytes at 5");
    EXPECT_EQ(range(0, -2), "no bytes at 0");
    EXPECT_EQ(range(INT64_MIN, INT64_MAX), "bytes from -9223372036854775808");
}
