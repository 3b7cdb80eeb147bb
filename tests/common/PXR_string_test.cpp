#include "libplatform/PXR_string.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

constexpr uint32_t kUntouched = 0xDEADBEEF;

int SignedAsWord(const char* text, uint32_t* out) {
    auto value = static_cast<int32_t>(*out);
    const int result = PXR_str2int(text, &value);
    *out = static_cast<uint32_t>(value);
    return result;
}

TEST(StringConvert, NumbersAreTakenWholeOrNotAtAll) {
    using Convert = int (*)(const char*, uint32_t*);
    struct Taken {
        Convert convert;
        const char* text;
        uint32_t value;
    };
    for (const auto& [convert, text, expected] :
         {Taken{PXR_str2digit, "0", 0}, Taken{PXR_str2digit, "4294967295", 0xFFFFFFFF},
          Taken{PXR_str2hex, "fFfFFffF", 0xFFFFFFFF}, Taken{PXR_str2oct, "37777777777", 0xFFFFFFFF},
          Taken{SignedAsWord, "0x1F", 31}, Taken{SignedAsWord, "017", 15}, Taken{SignedAsWord, "-5", 0xFFFFFFFB},
          Taken{SignedAsWord, "+2147483647", 0x7FFFFFFF}, Taken{SignedAsWord, "-2147483648", 0x80000000},
          Taken{SignedAsWord, "0XffffFFFF", 0xFFFFFFFF}, Taken{PXR_str2uint, "2147483648", 0x80000000},
          Taken{PXR_str2uint, "+0", 0}, Taken{PXR_str2ulong, "0x20", 32},
          Taken{PXR_str2ipaddr, "192.168.0.255", 0xC0A800FF}}) {
        uint32_t value = kUntouched;
        EXPECT_EQ(0, convert(text, &value)) << text;
        EXPECT_EQ(expected, value) << text;
    }
    struct Refused {
        Convert convert;
        int result;  // 1: too large
        std::vector<const char*> texts;
    };
    for (const auto& [convert, result, texts] :
         {Refused{PXR_str2digit, 1, {"4294967296", "99999999999999999999999999"}},
          Refused{PXR_str2digit, 2, {"99999999999x", "", " 1", "+1"}}, Refused{PXR_str2uldigit, 2, {"12a"}},
          Refused{PXR_str2hex, 1, {"100000000"}}, Refused{PXR_str2hex, 2, {"0x1F"}}, Refused{PXR_str2ulhex, 2, {"1G"}},
          Refused{PXR_str2oct, 1, {"40000000000"}}, Refused{PXR_str2uloct, 2, {"8"}},
          Refused{SignedAsWord, 1, {"2147483648", "-2147483649"}},
          Refused{SignedAsWord, 2, {"12a", "08", "0x", "+", "-0x1F"}}, Refused{PXR_str2uint, 2, {"-5"}},
          Refused{PXR_str2ulong, 1, {"4294967296"}},
          Refused{PXR_str2ipaddr,
                  2,
                  {"1.2.3.256", "1.2.3", "1.2.3.", "1..2.3", "1.2.3.4.5", "1.2.3.0x4", "99999999999.1.1.1"}}}) {
        for (const char* text : texts) {
            uint32_t value = kUntouched;
            EXPECT_EQ(result, convert(text, &value)) << text;
            EXPECT_EQ(kUntouched, value) << text;
        }
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
        EXPECT_STREQ(result != 0 ? untouched : value, out) << text;
        if (result == 0) free(out);
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
    const auto printed = [&]<class Result, class Value>(Result (*print)(char*, Value),
                                                        std::type_identity_t<Value> value) {
        print(text, value);
        return std::string(text);
    };
    EXPECT_EQ("True", printed(PXR_bool2str, 1));
    EXPECT_EQ("False", printed(PXR_bool2str, 0));
    EXPECT_EQ("Enabled", printed(PXR_bool2str2, 2));
    EXPECT_EQ("Disabled", printed(PXR_bool2str2, 0));
    EXPECT_EQ("192.168.0.1", printed(PXR_ipaddr2str, 0x0100A8C0)) << "in network byte order, as this machine reads it";
}

TEST(StringText, Cutting) {
    struct Case {
        char* (*cut)(char*);
        const char* text;
        const char* result;
    };
    for (const auto& [cut, text, result] :
         {Case{PXR_cut_space, " \t a b \r\n", "a b"}, Case{PXR_cut_space, " \t ", ""},
          Case{PXR_cut_space, "\xA0", "\xA0"}, Case{PXR_cut_comment, "key = 1 # why", " why"},
          Case{PXR_cut_comment, "key = \"#1\"#c", "c"}, Case{PXR_cut_comment, "key = 1 #", nullptr},
          Case{PXR_cut_str, " word\n", "word"}, Case{PXR_cut_str, "\"two words\" ", "two words"},
          Case{PXR_cut_str, "two words", nullptr}, Case{PXR_cut_str, "\"a\" b", nullptr},
          Case{PXR_cut_str, "\"open", nullptr}}) {
        EXPECT_STREQ(result, cut(std::string(text).data())) << text;
    }
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
