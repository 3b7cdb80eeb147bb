#include "libplatform/PXR_string.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr uint32_t kUntouched = 0xDEADBEEF;

struct NumberCase {
    int (*convert)(const char*, uint32_t*);
    const char* text;
    int result;
    uint32_t value;
};

int SignedAsWord(const char* text, uint32_t* out) {
    auto value = static_cast<int32_t>(*out);
    const int result = PXR_str2int(text, &value);
    *out = static_cast<uint32_t>(value);
    return result;
}

TEST(StringConvert, NumbersAreTakenWholeOrNotAtAll) {
    const NumberCase cases[] = {
        {PXR_str2digit, "0", 0, 0},
        {PXR_str2digit, "4294967295", 0, 0xFFFFFFFF},
        {PXR_str2digit, "4294967296", 1, kUntouched},
        {PXR_str2digit, "99999999999999999999999999", 1, kUntouched},
        {PXR_str2digit, "99999999999x", 2, kUntouched},
        {PXR_str2digit, "", 2, kUntouched},
        {PXR_str2digit, " 1", 2, kUntouched},
        {PXR_str2digit, "+1", 2, kUntouched},
        {PXR_str2uldigit, "12a", 2, kUntouched},
        {PXR_str2hex, "fFfFFffF", 0, 0xFFFFFFFF},
        {PXR_str2hex, "100000000", 1, kUntouched},
        {PXR_str2hex, "0x1F", 2, kUntouched},
        {PXR_str2ulhex, "1G", 2, kUntouched},
        {PXR_str2oct, "37777777777", 0, 0xFFFFFFFF},
        {PXR_str2oct, "40000000000", 1, kUntouched},
        {PXR_str2uloct, "8", 2, kUntouched},
        {SignedAsWord, "0x1F", 0, 31},
        {SignedAsWord, "017", 0, 15},
        {SignedAsWord, "-5", 0, 0xFFFFFFFB},
        {SignedAsWord, "+2147483647", 0, 0x7FFFFFFF},
        {SignedAsWord, "2147483648", 1, kUntouched},
        {SignedAsWord, "-2147483648", 0, 0x80000000},
        {SignedAsWord, "-2147483649", 1, kUntouched},
        {SignedAsWord, "0XffffFFFF", 0, 0xFFFFFFFF},
        {SignedAsWord, "12a", 2, kUntouched},
        {SignedAsWord, "08", 2, kUntouched},
        {SignedAsWord, "0x", 2, kUntouched},
        {SignedAsWord, "+", 2, kUntouched},
        {SignedAsWord, "-0x1F", 2, kUntouched},
        {PXR_str2uint, "2147483648", 0, 0x80000000},
        {PXR_str2uint, "+0", 0, 0},
        {PXR_str2uint, "-5", 2, kUntouched},
        {PXR_str2ulong, "0x20", 0, 32},
        {PXR_str2ulong, "4294967296", 1, kUntouched},
        {PXR_str2ipaddr, "192.168.0.255", 0, 0xC0A800FF},
        {PXR_str2ipaddr, "1.2.3.256", 2, kUntouched},
        {PXR_str2ipaddr, "1.2.3", 2, kUntouched},
        {PXR_str2ipaddr, "1.2.3.", 2, kUntouched},
        {PXR_str2ipaddr, "1..2.3", 2, kUntouched},
        {PXR_str2ipaddr, "1.2.3.4.5", 2, kUntouched},
        {PXR_str2ipaddr, "1.2.3.0x4", 2, kUntouched},
        {PXR_str2ipaddr, "99999999999.1.1.1", 2, kUntouched},
    };
    for (const NumberCase& c : cases) {
        uint32_t value = kUntouched;
        EXPECT_EQ(c.result, c.convert(c.text, &value)) << c.text;
        EXPECT_EQ(c.value, value) << c.text;
    }
}

TEST(StringConvert, TextsAreWordsOrQuoted) {
    struct Case {
        const char* text;
        int result;
        const char* value;
    };
    for (const auto& [text, result, value] : {
             Case{"word", 0, "word"}, Case{"\"two words\"", 0, "two words"},
             Case{"\"# no comment\"", 0, "# no comment"}, Case{"ab\"c", 0, "ab\"c"}, Case{"", 0, nullptr},
             Case{"\"\"", 0, nullptr}, Case{"two words", 2, nullptr}, Case{"word ", 2, nullptr}, Case{"\"", 2, nullptr},
             Case{"\"open", 2, nullptr}, Case{"\"closed\"x", 2, nullptr}, Case{"\"a\"b\"", 2, nullptr},
             Case{"\x83\x5C\x83\x5C", 0, "\x83\x5C\x83\x5C"},  // bytes above 0x7F are no white space
         }) {
        char untouched[] = "untouched";
        char* out = untouched;
        EXPECT_EQ(result, PXR_str2str(text, &out)) << text;
        if (result != 0) {
            EXPECT_STREQ("untouched", out) << text;
        } else {
            EXPECT_STREQ(value, out) << text;
            free(out);
        }
    }
}

TEST(StringConvert, SwitchesInEitherCaseAndBack) {
    uint8_t on = 7;
    EXPECT_EQ(2, PXR_str2bool("ENABLED", &on));
    EXPECT_EQ(2, PXR_str2bool("TRUEx", &on));
    EXPECT_EQ(2, PXR_str2bool2("TRU", &on));
    EXPECT_EQ(7, on);
    EXPECT_EQ(0, PXR_str2bool("tRuE", &on));
    EXPECT_EQ(1, on);
    EXPECT_EQ(0, PXR_str2bool2("Disabled", &on));
    EXPECT_EQ(0, on);

    char text[16];
    PXR_bool2str(text, 1);
    EXPECT_STREQ("True", text);
    PXR_bool2str(text, 0);
    EXPECT_STREQ("False", text);
    PXR_bool2str2(text, 2);
    EXPECT_STREQ("Enabled", text);
    PXR_bool2str2(text, 0);
    EXPECT_STREQ("Disabled", text);
    PXR_ipaddr2str(text, 0x0100A8C0);  // 192.168.0.1 in network byte order, as this machine reads it
    EXPECT_STREQ("192.168.0.1", text);
}

std::string CutWith(char* (*cut)(char*), std::string text) {
    const char* const result = cut(text.data());
    return result != nullptr ? result : "(null)";
}

TEST(StringText, Cutting) {
    EXPECT_EQ("a b", CutWith(PXR_cut_space, " \t a b \r\n"));
    EXPECT_EQ("", CutWith(PXR_cut_space, " \t "));
    EXPECT_EQ("\xA0", CutWith(PXR_cut_space, "\xA0"));
    EXPECT_EQ(" why", CutWith(PXR_cut_comment, "key = 1 # why"));
    EXPECT_EQ("(null)", CutWith(PXR_cut_comment, "key = \"#1\""));
    EXPECT_EQ("c", CutWith(PXR_cut_comment, "key = \"#1\"#c"));
    EXPECT_EQ("(null)", CutWith(PXR_cut_comment, "key = 1 #"));
    EXPECT_EQ("word", CutWith(PXR_cut_str, " word\n"));
    EXPECT_EQ("two words", CutWith(PXR_cut_str, "\"two words\" "));
    EXPECT_EQ("(null)", CutWith(PXR_cut_str, "two words"));
    EXPECT_EQ("(null)", CutWith(PXR_cut_str, "\"a\" b"));
    EXPECT_EQ("(null)", CutWith(PXR_cut_str, "\"open"));

    char line[] = "key = \"a#b\"";
    EXPECT_EQ(nullptr, PXR_cut_comment(line));
    EXPECT_STREQ("key = \"a#b\"", line);
}

TEST(StringText, Splitting) {
    char line[] = "\"a=b\"=c=d";
    EXPECT_EQ(line + 5, PXR_skip_pt(line, '='));
    EXPECT_EQ(line, PXR_skip_pt(line, '"'));
    EXPECT_EQ(nullptr, PXR_skip_pt(line, '#'));
    EXPECT_EQ(nullptr, PXR_next_pt(line, '#'));
    EXPECT_STREQ("c=d", PXR_next_pt(line, '='));
    EXPECT_STREQ("\"a=b\"", line);
}

TEST(StringText, Checks) {
    for (const char* text : {"", " \t\n", "#", "  # comment"})
        EXPECT_EQ(1, PXR_chk_empty(text)) << text;
    EXPECT_EQ(0, PXR_chk_empty(" x#"));
    EXPECT_EQ('=', PXR_chk_strchr("a=b,c", "=,"));
    EXPECT_EQ(',', PXR_chk_strchr("a=b,c", ",="));
    EXPECT_EQ(-1, PXR_chk_strchr("\"a=b\"", "="));

    EXPECT_EQ(1, PXR_check_token("rw,ro", "ro", ','));
    EXPECT_EQ(1, PXR_check_token("ro,rw", "ro", ','));
    EXPECT_EQ(0, PXR_check_token("rw,root", "ro", ','));
    EXPECT_EQ(0, PXR_check_token("rw,nosuid,pro", "ro", ','));

    struct Figures {
        int n;
        int base;
        int count;
    };
    for (const auto& [n, base, count] :
         {Figures{0, 10, 1}, Figures{9, 10, 1}, Figures{10, 10, 2}, Figures{-1, 10, 2}, Figures{INT_MAX, 10, 10},
          Figures{INT_MIN, 10, 11}, Figures{255, 16, 2}, Figures{-1, 16, 8}, Figures{8, 2, 4}, Figures{5, 1, 0}}) {
        EXPECT_EQ(count, PXR_calc_figure(n, base)) << n << " in base " << base;
    }

    EXPECT_EQ(0, PXR_is_exept_ank("Plain text."));
    EXPECT_EQ(1, PXR_is_exept_ank("bell\a"));
    EXPECT_EQ(0, PXR_is_exept_sjis("A\x83\x5C\x93\xFA B"));
    EXPECT_EQ(1, PXR_is_exept_sjis("\x83"));      // lead byte in last place
    EXPECT_EQ(1, PXR_is_exept_sjis("\x83\x20"));  // no trail byte
    EXPECT_EQ(1, PXR_is_exept_sjis("\x85\x40"));  // no lead byte
    EXPECT_EQ(1, PXR_is_exept_sjis("\n"));
}

TEST(StringText, CopyingAndSearching) {
    char buffer[8] = "old";
    EXPECT_EQ(buffer, PXR_chkstrcpy(buffer, nullptr));
    EXPECT_STREQ("", PXR_chkstrcpy(buffer, nullptr));
    EXPECT_STREQ("new", PXR_chkstrcpy(buffer, "new"));

    char* text = PXR_cat_string(nullptr, "one");
    text = PXR_cat_string(text, nullptr);
    text = PXR_cat_string(text, " two");
    text = PXR_cat_string(text, text);
    EXPECT_STREQ("one twoone two", text);
    free(text);

    EXPECT_STREQ("Velmora", PXR_stristr("the Velmora", "vELMORA"));
    EXPECT_STREQ("aab", PXR_stristr("aaab", "AAB"));
    EXPECT_EQ(nullptr, PXR_stristr("short", "shorter"));
    EXPECT_STREQ("x", PXR_stristr("x", ""));

    uint8_t bytes[5] = {};
    PXR_putDWORD(bytes + 1, 0x11223344);
    EXPECT_EQ(0x44, bytes[1]);
    EXPECT_EQ(0x11223344U, PXR_getDWORD(bytes + 1));
}

}  // namespace
