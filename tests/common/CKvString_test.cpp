#include "libplatform/CKvString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

namespace {

/// The block's size shows in the record alone.
uint32_t CapacityOf(const CKvString& text) {
    uint32_t words[2];
    memcpy(words, reinterpret_cast<const char*>(&text), sizeof words);
    return words[1];
}

TEST(CKvString, TheBlockGrowsAndStays) {
    CKvString text(nullptr, 256);
    EXPECT_TRUE(text == "");
    text = std::string(300, 'b').c_str();
    EXPECT_EQ(301U, CapacityOf(text));
    text = "short";
    EXPECT_EQ(301U, CapacityOf(text));
    EXPECT_EQ(0, static_cast<const char*>(text)[299]) << "nothing is left of the longer text";
    text.SetString(nullptr);
    EXPECT_STREQ("short", text);
    text.AllocBuffer(6);
    for (const char* part : {"abc", "de", "", "f"})
        text.ConcatString(part);
    EXPECT_STREQ("abcdef", text);
    EXPECT_EQ(10U, CapacityOf(text));
    text = static_cast<const char*>(text) + 1;  // a part of itself
    EXPECT_STREQ("bcdef", text);
    text.AllocBuffer(3);
    text.CopyString("longer than that");
    EXPECT_STREQ("lo", text);
}

TEST(CKvString, WithoutABufferItIsLikeNothing) {
    CKvString none(nullptr, 0);
    EXPECT_FALSE(none == none);
    EXPECT_TRUE(none != CKvString(none));
    none.ConcatString("x");
    EXPECT_EQ(nullptr, static_cast<const char*>(none));
    EXPECT_TRUE(CKvString("x", 0) == CKvString(CKvString("x", 99), 1));
}

TEST(CKvString, Trims) {
    for (const auto& [given, both, left] :
         {std::tuple{"\"word\"", "word", "word\""}, {"\"\"\"", "", ""}, {"a\"b", "a\"b", "a\"b"}}) {
        CKvString text(given, 256);
        text.TrimBoth('"');
        EXPECT_STREQ(both, text);
        text = given;
        text.TrimLeft('"');
        EXPECT_STREQ(left, text);
        EXPECT_EQ(256U, CapacityOf(text));
    }
}

}  // namespace
