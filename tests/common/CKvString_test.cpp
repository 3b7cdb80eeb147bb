#include "common/CKvString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

/// The block's size shows in the record alone.
uint32_t CapacityOf(const CKvString& text) {
    uint32_t words[2];
    memcpy(words, reinterpret_cast<const char*>(&text), sizeof words);
    return words[1];
}

TEST(CKvString, TheBlockGrowsAndStays) {
    CKvString text(nullptr, 256);
    EXPECT_EQ(256U, CapacityOf(text));
    EXPECT_EQ(0U, text.GetLength());
    EXPECT_TRUE(text == "");
    text.SetString(std::string(255, 'a').c_str());
    EXPECT_EQ(256U, CapacityOf(text));
    text.SetString(std::string(300, 'b').c_str());
    EXPECT_EQ(301U, CapacityOf(text));
    EXPECT_EQ(300U, text.GetLength());
    text = "short";
    EXPECT_EQ(301U, CapacityOf(text));
    EXPECT_EQ(0, static_cast<const char*>(text)[299]) << "nothing is left of the longer text";
    text.SetString(nullptr);
    EXPECT_STREQ("short", text);
}

TEST(CKvString, Appends) {
    CKvString text("abc", 6);
    text.ConcatString("de");
    EXPECT_EQ(6U, CapacityOf(text));
    text.ConcatString("f");
    EXPECT_STREQ("abcdef", text);
    EXPECT_EQ(10U, CapacityOf(text));
    text.ConcatString(nullptr);
    text.ConcatString("");
    EXPECT_STREQ("abcdef", text);
    CKvString none(nullptr, 0);
    none.ConcatString("x");
    EXPECT_EQ(nullptr, static_cast<const char*>(none));
    none.SetString("x");
    EXPECT_STREQ("x", none);
}

TEST(CKvString, WithoutABufferItIsLikeNothing) {
    const CKvString none(nullptr, 0);
    const CKvString other(nullptr, 0);
    EXPECT_FALSE(none == other);
    EXPECT_TRUE(none != other);
    EXPECT_FALSE(none == "");
    EXPECT_TRUE(CKvString("x", 0) == CKvString("x", 99));
    EXPECT_FALSE(CKvString("x", 0) == static_cast<const char*>(nullptr));
}

TEST(CKvString, CopiesAreDeep) {
    CKvString text("abc", 16);
    CKvString copy(text);
    const CKvString small(text, 2);
    text = copy;
    copy = "other";
    EXPECT_STREQ("abc", text);
    EXPECT_STREQ("abc", small);
    text = *&text;
    text = static_cast<const char*>(text) + 1;  // a part of itself
    EXPECT_STREQ("bc", text);
    text.AllocBuffer(3);
    text.CopyString("longer than that");
    EXPECT_STREQ("lo", text);
}

TEST(CKvString, Trims) {
    struct Case {
        const char* text;
        const char* left;
        const char* right;
        const char* both;
    };
    for (const auto& [given, left, right, both] :
         {Case{"\"word\"", "word\"", "\"word", "word"}, Case{"\"\"\"", "", "", ""}, Case{"", "", "", ""},
          Case{"a\"b", "a\"b", "a\"b", "a\"b"}}) {
        CKvString text(given, 256);
        text.TrimLeft('"');
        EXPECT_STREQ(left, text);
        text = given;
        text.TrimRight('"');
        EXPECT_STREQ(right, text);
        text = given;
        text.TrimBoth('"');
        EXPECT_STREQ(both, text);
        EXPECT_EQ(256U, CapacityOf(text));
    }
}

}  // namespace
