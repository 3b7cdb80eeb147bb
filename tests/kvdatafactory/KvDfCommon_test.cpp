// Definition files: their normal form, elements, names and kinds; what is hostile in them.
#include "kvdatafactory/KvDfCommon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "kvdatafactory/Inventory/KvIfAnalyze.h"
#include "libplatform/KvDfCheck.h"
#include "tests/support/DefinitionFiles.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/TempDirectory.h"

namespace {

using namespace std::string_literals;

TEST(DefinitionText, NormalForm) {
    struct Row {
        std::string file;
        std::string text;
    };
    for (const auto& [file, text] : {
             Row{"[A]\n  TAG ( a b , 1 )\n", "[A]TAG( a b , 1 )"},
             Row{"[A]\tTAG(a\tb)\r\n", "[A]TAG(ab)"},
             Row{"A(1);comment (\"\nB(2)", "A(1)B(2)"},
             Row{"A(\"x;y\nz\")", "A(\"xz\")"},         // a comment begins inside quotes, too
             Row{"A(\"(\" b ) c", "A(\"(\" b )c"},      // no parenthesis inside quotes
             Row{"A((1) 2) 3", "A((1)2)3"},             // a flag, not a depth
             Row{"A(\\;\\ \\\") b", "A(\\;\\ \\\")b"},  // behind a backslash all stands for itself
             Row{"A(1);c\rB(2)", "A(1)B(2)"},
             Row{";\\\nA", "A"},
             Row{"", ""},
         }) {
        std::string copy = file;
        definition::Notes notes;
        copy.resize(definition::Normalize(copy.data(), copy.size(), notes));
        EXPECT_EQ(text, copy) << file;
    }
}

TEST(DefinitionText, Numbers) {
    struct Row {
        const char* text;
        bool valid;
        unsigned long number;
    };
    for (const auto& [text, valid, number] :
         {Row{"4", true, 4}, Row{"0x1F", true, 31}, Row{"010", true, 8}, Row{"12a", false, 0}, Row{"0X1F", false, 0},
          Row{"-1", true, 0xFFFFFFFF}, Row{"4294967296", true, 0xFFFFFFFF}, Row{"0x", false, 0}, Row{"", false, 0},
          Row{"1 2", false, 0}, Row{"0xFFFFFFFF", true, 0xFFFFFFFF}}) {
        unsigned long read = 0;
        EXPECT_EQ(valid, definition::ReadNumber(text, read)) << text;
        EXPECT_EQ(number, read) << text;
    }
    for (const auto& [text, valid, number] : {Row{"1A", true, 0x1A}, Row{"0x1A", true, 0x1A}, Row{"CPU Slot", true, 0},
                                              Row{"CpuFan", true, 0}, Row{"0x", true, 0}, Row{"", true, 0}}) {
        EXPECT_EQ(number, definition::ReadHexKey(text)) << text << (valid ? "" : "?");
    }
}

/// All fields of the first element, as the in-place and the copying tokenizer see them.
std::string InPlace(std::string text, uint32_t& code) {
    char* start = text.data();
    char* end = nullptr;
    code = KvDf_GetElementData(start, &end, text.data() + text.size(), "T(", 2);
    std::string out;
    for (const char* before = nullptr; code == 0 && before != start; KvDf_NextStringPoint(start, end)) {
        out += "<" + std::string(start) + ">";
        before = start;
        char* next = start;
        KvDf_NextStringPoint(next, end);
        if (next == start) break;
    }
    return out;
}

std::string Copied(const std::string& text, uint32_t& code) {
    CKvList<CKvString*> fields;
    const char* end = nullptr;
    code = KvDf_GetElementData(&fields, text.data(), &end, text.data() + text.size(), "T(");
    std::string out;
    for (CKvString* field = nullptr; fields.RemoveHead(field) != 0; delete field)
        out += "<" + std::string(*field) + ">";
    return code == 0 ? out : "";
}

TEST(DefinitionText, Elements) {
    constexpr uint32_t kNone = 0x63F51302;
    struct Row {
        std::string text;
        const char* inPlace;
        const char* copied;
    };
    for (const auto& [text, inPlace, copied] : {
             Row{"T(a,b)", "<a><b>", "<a><b>"},
             Row{"T( a ,b)T(c)", "< a ><b>", "< a ><b>"},
             Row{"T(a,U(b,c),d)", "<a><U(b,c)><d>", "<a><U(b,c)><d>"},
             Row{"T(\"a,b\",c)", "<\"a><b\"><c>", "<\"a,b\"><c>"},
             Row{"T(\"a)b\",c)", "<\"a>", "<\"a)b\"><c>"},
             Row{"T()", "<>", "<>"},
             Row{"T(,)", "<><>", "<><>"},
             Row{"STRT(x)T(y)", "<y>", "<y>"},  // the tag is a word of its own
             Row{"T(a,b", "<a><b>", "<a><b>"},  // the end of the file ends it
             Row{"T(a,bT(c)", "<a><bT(c)>", "<a><bT(c)>"},
             Row{"T(a;T(b)", nullptr, nullptr},  // runs into the next one
             Row{"T(T(a)", nullptr, nullptr},
             Row{"U(a)", nullptr, nullptr},
             Row{"T("s + std::string(255, 'x') + ")", nullptr, nullptr},
         }) {
        uint32_t code = 0;
        const bool longest = text.size() > 200;
        const std::string x255 = "<" + std::string(255, 'x') + ">";
        EXPECT_EQ(longest ? x255 : inPlace != nullptr ? inPlace : "", InPlace(text, code)) << text;
        EXPECT_EQ(inPlace != nullptr || longest ? 0 : kNone, code) << text;
        EXPECT_EQ(longest ? x255 : copied != nullptr ? copied : "", Copied(text, code)) << text;
        EXPECT_EQ(copied != nullptr || longest ? 0 : kNone, code) << text;
    }
    uint32_t code = 0;
    EXPECT_EQ("", Copied("T(" + std::string(256, 'x') + ")", code));
    EXPECT_EQ(kNone, code) << "256 characters are too many";
}

constexpr char kNames[] =
    "[EnumSensorType] SENSORTYPE( Temperature , 0x01 ) ; a comment\n SENSORTYPE(Fan,010) SENSORTYPE(Bad,12a)\n"
    "[EnumEntityId] ENTITYID(Board,7) ENTITYID(Board,8)\n"
    "[EnumSensorId] SENSORID(Temp,0x10) SENSORID(CPU Board Temp,\"0x11\")\n";

TEST(DefinitionFile, NamesForNumbers) {
    const DefinitionFiles files(kNames);
    const auto tables = g_tables.Get();
    EXPECT_EQ("1", files.Number(tables->mapSnsType, "Temperature"));
    EXPECT_EQ("8", files.Number(tables->mapSnsType, "Fan"));
    EXPECT_EQ("?", files.Number(tables->mapSnsType, "Bad"));
    EXPECT_EQ("8", files.Number(tables->mapEntityId, "Board")) << "the last one counts";
    EXPECT_EQ("17", files.Number(tables->mapSnsId, "CPU Board Temp"));
    EXPECT_EQ("Enum ID [Bad] have invalid number [12a]", files.skipped);
}

TEST(DefinitionFile, TheMoreSpecificKindWins) {
    const DefinitionFiles files(std::string(kNames) +
                                "[Sensor] SENSOR(Temp,Temperature,7) SENSOR(CPU Board Temp,1,0x07,\"CPU\") "
                                "SENSOR(Nobody,1,7) SENSOR(Temp,What,7) SENSOR(Temp,1,Where)");
    const auto kindOf = [](unsigned long type, unsigned long entity, const char* name) {
        const CKvSensorType* const kind = KvDf_SearchSensor(type, entity, name);
        return kind != nullptr ? kind->GetSensorId() : 0;
    };
    EXPECT_EQ(0x11u, kindOf(1, 7, "CPU1 Temp"));
    EXPECT_EQ(0x10u, kindOf(1, 7, "Ambient"));
    EXPECT_EQ(0x10u, kindOf(1, 7, nullptr));
    EXPECT_EQ(0u, kindOf(2, 7, "Ambient"));
    EXPECT_EQ(
        "Enum ID [Bad] have invalid number [12a]; Invalid map file. strSnsId=Nobody; Invalid map file. "
        "strSnsTypeId=What; Invalid map file. strEntId=Where",
        files.skipped);
}

TEST(DefinitionFile, Inventories) {
    struct Row {
        const char* text;
        unsigned long id;
        const char* inventory;
    };
    for (const auto& [text, id, inventory] : {
             Row{"[BodyTemp][BodyFan] TYPE(1) INSTANCE(SENSOR(20,0,30,0),STRING(System Fan 1),VALUE(1))", 2,
                 "type 1 {sensor 20.0.30.0, \"System Fan 1\", 1}"},
             Row{"[BodyTemp][Voltage] INSTANCE(SENSOR(20,0,41,0)) INSTANCE(SENSOR(20,0,42,1))", 4,
                 "type 0 {sensor 20.0.41.0} {sensor 20.0.42.1}"},
             Row{"[Voltage] INSTANCE(VALUE(1))", 4, "none"},  // not without [BodyTemp]
             Row{"[BodyTemp] INSTANCE(VALUE(10),VALUE(0x1F),VALUE(\"1f\"))", 1, "type 0 {16, 31, 31}"},
             Row{"[BodyTemp] INSTANCE(VALUE(1)STRING(\" a, b \")VALUE(2))", 1, "type 0 {1, \" a, b \", 2}"},
             Row{"[BodyTemp] INSTANCE(VALUE(1)) INSTANCE(SENSOR(20,0,30)) INSTANCE(VALUE(3))", 1,
                 "type 0 {1} {sensor 0.0.0.0}"},
             Row{"[BodyTemp] INSTANCE(VALUE(1),IDSTRING(x),VALUE(2)) INSTANCE(VALUE(3))", 1, "type 0 {1}"},
             Row{"[BodyTemp] INSTANCE(WHAT(1))", 1, "type 0 {}"},
             Row{"[BodyTemp][Voltage][Cpu]", 4, "type 0"},
             Row{"[BodyTemp] INSTANCE(VALUE(1)) [BodyTemp] INSTANCE(VALUE(2))", 1, "type 0 {1}"},
         }) {
        const DefinitionFiles files(text);
        EXPECT_EQ(inventory, files.Inventory(id)) << text;
    }
    DefinitionFiles later("[BodyTemp] INSTANCE(VALUE(1))");
    later.Read("[BodyTemp] INSTANCE(VALUE(2))");
    EXPECT_EQ("type 0 {1} {2}", later.Inventory(1)) << "a later file's instances come behind";
}

TEST(DefinitionFile, BadElementsDoNotCostTheGoodOnes) {
    struct Row {
        const char* what;
        std::string text;
        int kept;
    };
    const std::string good = "SENSORTYPE(Good,7)";
    for (const auto& [what, text, kept] :
         {Row{"unclosed, then another", "[EnumSensorType]SENSORTYPE(a,1 SENSORTYPE(b,2)" + good, 2},
          Row{"unclosed at the section's end", "[EnumEntityId]ENTITYID(a,1[EnumSensorType]" + good, 1},
          Row{"unclosed quote", "[EnumSensorType]SENSORTYPE(\"a,1)" + good, 2},
          Row{"NUL bytes", "[EnumSensorType]SENSORTYPE(a\0b,1)"s + good, 1},
          Row{"Windows line ends", "[EnumSensorType]\r\nSENSORTYPE(a,1)\r\n" + good + "\r\n", 2},
          Row{"a section twice", "[EnumSensorType]" + good + "[EnumSensorType]SENSORTYPE(b,2)", 1},
          Row{"nothing in it", "[EnumSensorType]SENSORTYPE(,)SENSORTYPE()" + good, 1},
          Row{"numbers out of range", "[EnumSensorType]SENSORTYPE(a,99999999999999999999)" + good, 2},
          Row{"brackets", "[[]]][EnumSensorType]" + good, 1}}) {
        const DefinitionFiles files(text);
        EXPECT_EQ(kept, files.kept) << what;
        EXPECT_EQ("7", files.Number(g_tables.Get()->mapSnsType, "Good")) << what;
    }
}

TEST(DefinitionFile, TenMegabytesOnOneLine) {
    std::string text = "[EnumSensorType]";
    for (int i = 0; text.size() < 10 * 1024 * 1024; ++i)
        text += "SENSORTYPE(n" + std::to_string(i) + "," + std::to_string(i % 250) + ")";
    const auto begin = std::chrono::steady_clock::now();
    const DefinitionFiles files(text);
    EXPECT_EQ(16384, files.kept) << "and then the table is full";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(DefinitionFile, OnlyRegularFilesAreRead) {
    const TempDirectory directory;
    std::string fifo = directory.Path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    std::string missing = directory.Path("missing");
    std::string file = directory.AddFile("file", "abc");
    char* data = nullptr;
    unsigned long size = 0;
    EXPECT_EQ(0x60BF1301u, KvDf_ReadFileData(fifo.data(), &data, &size)) << "and nobody waits for a writer";
    EXPECT_EQ(0x60BF1301u, KvDf_ReadFileData(missing.data(), &data, &size));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(nullptr, data);
    ASSERT_EQ(0u, KvDf_ReadFileData(file.data(), &data, &size));
    const std::unique_ptr<char[]> owner(data);
    EXPECT_EQ(3u, size);
    EXPECT_EQ("abc\0\0\0\0"s, std::string(data, 7));
}

TEST(DefinitionFile, NullArguments) {
    char text[] = "T(a)";
    char* start = text;
    char* end = nullptr;
    unsigned long size = 0;
    EXPECT_EQ(0x60BF4201u, KvDf_ReadFileData(nullptr, &start, &size));
    EXPECT_EQ(0x60C24201u, KvDf_AdjustFileData(nullptr, &size));
    EXPECT_EQ(0x63F54201u, KvDf_GetElementData(start, &end, nullptr, "T(", 2));
    EXPECT_EQ(0x63F54201u, KvDf_GetElementData(nullptr, start, nullptr, nullptr, "T("));
    EXPECT_EQ(0x63F54201u, KvDfAnalyzeFileData(nullptr, 1));
    EXPECT_EQ(0x63F54201u, KvDfAnalyzeFileData(text, 0));
    EXPECT_EQ(0x60604201u, KvDf_CreateVersion(nullptr, text, "VERSION(", &size));
    EXPECT_EQ(0x300u, size);
    EXPECT_EQ(0x60C11301u, KvDf_GetFilePath(&end, 4));
    EXPECT_EQ(0x607B4201u, KvIf_CreateInstance(nullptr, 1, text));
}

TEST(DefinitionFile, Version) {
    struct Row {
        std::string section;
        uint32_t code;
        unsigned long version;
    };
    for (const auto& [section, code, version] :
         {Row{"VERSION(0x310)", 0, 0x310}, Row{"VERSION( \"0x310\" )", 0, 0x310}, Row{"VERSION(310)", 0, 0x300},
          Row{"[Other]VERSION(0x310)", 0, 0x300}, Row{"NONE(1)", 0x63F51302, 0x300}, Row{"", 0x60601302, 0x300}}) {
        std::string text = section;
        unsigned long read = 0;
        EXPECT_EQ(code, KvDf_CreateVersion(text.data(), text.data() + text.size(), "VERSION(", &read)) << section;
        EXPECT_EQ(version, read) << section;
    }
}

// ---- Checking

std::vector<std::string> RemarksOn(const TempDirectory& directory, KVDF_CHECK_COUNTS& counts) {
    std::vector<std::string> remarks;
    const auto listen = [](const KVDF_REMARK* remark, void* context) {
        char line[512];
        snprintf(line, sizeof line, "%u %s:%u %s %s: %s", remark->kind, remark->file, remark->line, remark->section,
                 remark->element, remark->reason);
        static_cast<std::vector<std::string>*>(context)->push_back(line);
    };
    EXPECT_EQ(0u, KvDfCheckDefinitions(directory.Path("").c_str(), listen, &remarks, &counts));
    return remarks;
}

TEST(CheckDefinitions, SaysWhereAndWhy) {
    const TempDirectory directory;
    directory.AddFile("sensor_map",
                      "[EnumSensorType]\nSENSORTYPE(Fan, 4)\n\nSENSORTYPE(Bad, x)\n[Sensor]\nSENSOR(1,Fan,\"7\n\")\n");
    directory.AddFile("inv_map", "[BodyTemp]\nINSTANCE(VALUE(1),\n  WHAT(1))\n[Voltage]\n[CpuBoard]\n");
    KVDF_CHECK_COUNTS counts = {};
    const std::vector<std::string> expected = {
        "1 sensor_map:6  : a double quote is open at the end of the line",
        "0 sensor_map:4 [EnumSensorType] SENSORTYPE(Bad, x: Enum ID [Bad] have invalid number [x]",
        "0 inv_map:2 [BodyTemp] WHAT(1): Unknown Column Type: type=0",
        "0 inv_map:2 [BodyTemp] INSTANCE(VALUE(1),WHAT(1): the section ends here",
        "2 alert_map:0  : No such file or directory",
        "1 alert_map:0 [Voltage] : the inventory is empty, and there will be no built-in one",
    };
    EXPECT_EQ(expected, RemarksOn(directory, counts));
    EXPECT_EQ(2u, counts.kept);
    EXPECT_EQ(3u, counts.skipped);
}

TEST(CheckDefinitions, TheDeliveredFilesAreClean) {
    KVDF_CHECK_COUNTS counts = {};
    const auto listen = [](const KVDF_REMARK* remark, void*) {
        if (std::string(remark->file) != "alert_map")
            ADD_FAILURE() << remark->file << ':' << remark->line << ' ' << remark->reason;
    };
    EXPECT_EQ(0u, KvDfCheckDefinitions(InSourceTree("/data/maps").c_str(), listen, nullptr, &counts));
    EXPECT_LT(150u, counts.kept);
    EXPECT_EQ(0u, counts.skipped);
}

}  // namespace
