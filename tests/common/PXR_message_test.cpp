#include "libplatform/PXR_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "common/PXR_result.h"
#include "libplatform/PXR_trace.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/SyslogListener.h"
#include "tests/support/Tracing.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// Takes a text that the library has allocated.
std::string Taken(char* text) {
    const std::string copy = text != nullptr ? text : "(null)";
    free(text);
    return copy;
}

constexpr const char* kCatalogue = "KvAgent.cat";
constexpr const char* kTexts =
    "$quote \"\n"
    "$set 1\n"
    "7 \"%d of %s\"\n"
    "16898 \"An argument is invalid.\"\n"
    "$set 4\n"
    "534 \"%1 failed, %2%3 100%\"\n";

constexpr const char* kJapaneseTexts =
    "$quote \"\n$set 1\n16898 \"Hikisuu ga mukou desu.\"\n$set 4\n534 \"%1 shippai\"\n";

/// A machine whose catalogues hold a few texts.
MachineRoot MakeRootWithTexts() {
    MachineRoot root(".");
    for (const auto& [locale, texts] : {std::pair{"C", kTexts}, {"ja_JP.SJIS", kJapaneseTexts}}) {
        const std::string folder = std::string("/opt/velmora/lantrel/lib/nls/") + locale;
        root.AddDirectory(folder);
        root.AddFile("/tmp/texts.msg", texts);
        const std::string compile =
            "gencat " + root.Outside(folder + "/KvAgent.cat").string() + " " + root.Outside("/tmp/texts.msg").string();
        EXPECT_EQ(0, std::system(compile.c_str()));  // NOLINT(cert-env33-c): a command of the test's own
    }
    return root;
}

/// What a function prints to a stream.
template <typename Print>
std::string Printed(Print print) {
    char* text = nullptr;
    size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    print(stream);
    fclose(stream);
    return Taken(text);
}

TEST(PxrMessage, CodesArePrinted) {
    using Case = std::pair<uint32_t, const char*>;
    for (const auto& [code, printed] : {Case{0x618C4202, "QNTR 64202-C 18C"},  // no severity given: critical
                                        Case{0x64000000, "QNTR 60000-W 000"},  // warning
                                        Case{0x68001202, "QNTR 61202-E 000"},  // error
                                        Case{0x6C000000, "QNTR 60000-C 000"},  // both bits
                                        Case{0xF7FF00FF, "QNTR F00FF-W 3FF"},  // every field at its width
                                        Case{0x6000B400, "QNTR 6B400-C 000"}}) {
        EXPECT_EQ(printed, Taken(PXR_GetErrCodeString(code)));
    }
}

TEST(PxrMessage, PrintsWithArguments) {
    setenv("LANG", "ja_JP.UTF-8", 1);  // which has no texts on this machine: the neutral ones are printed
    const MachineRoot root = MakeRootWithTexts();
    RunInRoot(root, [] {
        std::string file = "/tmp/single.log";
        ASSERT_EQ(0, PXR_single_trace_init(file.data()));
        EXPECT_EQ("3 of disks\n",
                  Printed([](FILE* out) { EXPECT_EQ(0, PXR_output_message(out, kCatalogue, 1, 7, 3, "disks")); }));
        const std::string name(600, 'd');
        EXPECT_EQ("4 of " + name + "\n", Printed([&](FILE* out) {
                      EXPECT_EQ(0, PXR_output_message_trace(out, kCatalogue, 1, 7, 4, name.c_str()));
                  }));
        EXPECT_EQ("",
                  Printed([](FILE* out) { EXPECT_EQ(0x61821303, PXR_output_message_trace(out, kCatalogue, 1, 8)); }));
        char buffer[20] = "as it was";
        EXPECT_EQ(0x61821303, PXR_sprint_message(buffer, "Missing.cat", 1, 7, 5, "fans"));
        EXPECT_STREQ("as it was", buffer);
        EXPECT_EQ(0, PXR_sprint_message(buffer, kCatalogue, 1, 7, 5, "fans"));
        EXPECT_STREQ("5 of fans", buffer);
        EXPECT_EQ(EOF, PXR_sprint_message(nullptr, kCatalogue, 1, 7, 5, "fans"));
        EXPECT_EQ(EOF, PXR_output_message(nullptr, kCatalogue, 1, 7, 5, "fans"));
        cookie_io_functions_t takesNothing{};
        takesNothing.write = [](void*, const char*, size_t) -> ssize_t { return 0; };
        FILE* const full = fopencookie(nullptr, "w", takesNothing);
        EXPECT_NE(0, PXR_output_message(full, kCatalogue, 1, 7, 3, "disks"));
        fclose(full);
    });
    EXPECT_THAT(root.ReadFile("/tmp/single.log"), EndsWith("]: : 4 of " + std::string(442, 'd') + "\n"));
}

TEST(PxrMessage, SystemLogLinesCarryOriginAndSeverityAndCanBeRedirectedOrDropped) {
    unsetenv("LANG");
    RunInRoot(MakeRootWithTexts(), [] {
        SyslogListener syslogd;
        std::string agent = "/opt/velmora/lantrel/bin/pxragt";
        PXR_syslog_message(LOG_ERR, kCatalogue, 4, 534, 1, "%s%n");
        PXR_set_command_name(agent.data());
        PXR_syslog_message(LOG_WARNING, kCatalogue, 4, 534, 2, nullptr, "b");
        PXR_syslog_message(LOG_INFO, kCatalogue, 4, 534, 0);
        PXR_syslog_message(LOG_ERR, "Missing.cat", 4, 2049, 2, "open", "13");
        EXPECT_THAT(syslogd.Lines(),
                    ElementsAre("pxragt: WXPLG0534AO-E %s%n failed,  100%", "pxragt: WXPLG0534AA-W  failed, b 100%",
                                "pxragt: WXPLG0534AA-I  failed,  100%", "pxragt: WXPLG2049AA-E open 13"));
        EXPECT_THAT(syslogd.Priorities(), ElementsAre(LOG_DAEMON | LOG_ERR, LOG_DAEMON | LOG_WARNING,
                                                      LOG_DAEMON | LOG_INFO, LOG_DAEMON | LOG_ERR));
        syslog(LOG_ERR, "the host");
        EXPECT_EQ(program_invocation_short_name + std::string(": the host"), syslogd.Lines().back());
        EXPECT_EQ(LOG_USER | LOG_ERR, syslogd.Priorities().back());

        EXPECT_EQ("cutting failed,  100%\n", Printed([](FILE* out) {
                      PXR_set_syslog_output(out);
                      PXR_syslog_message(LOG_ERR, kCatalogue, 4, 534, 1, "cutting");
                      PXR_disable_syslog_output();
                      PXR_syslog_message(LOG_ERR, kCatalogue, 4, 534, 1, "dropped");
                  }));
        EXPECT_EQ(5U, syslogd.Lines().size());
        PXR_set_syslog_output(nullptr);
        PXR_syslog_message(LOG_ERR, kCatalogue, 4, 534, 1, "back");
        EXPECT_EQ(6U, syslogd.Lines().size());
    });
}

TEST(PxrMessage, TextsOfCodesFollowLangTheSystemLogDoesNot) {
    for (const auto& [lang, text] :
         {std::pair{"C", "An argument is invalid."}, {"ja_JP.SJIS", "Hikisuu ga mukou desu."}}) {
        setenv("LANG", lang, 1);
        RunInRoot(MakeRootWithTexts(), [expected = text] {
            EXPECT_EQ(expected, Taken(PXR_GetErrCodeMes(kCatalogue, 0x618C4202)));
            EXPECT_EQ(nullptr, PXR_GetErrCodeMes(kCatalogue, 0x618C4203));
            EXPECT_EQ(nullptr, PXR_GetErrCodeMes("Missing.cat", 0x4202));
            SyslogListener syslogd;
            PXR_syslog_message(LOG_ERR, kCatalogue, 4, 534, 1, "cutting");
            EXPECT_THAT(syslogd.Lines(), ElementsAre(EndsWith("-E cutting failed,  100%")));
        });
    }
}

TEST(PxrReportError, TracesCodeTextAndPlaceAndGivesTheCodeBack) {
    unsetenv("LANG");
    RunInRoot(MakeRootWithTexts(), [] {
        EXPECT_EQ(0x618C4202U, PXR_ReportError(0x618C4202));  // tracing is off
        Tracing tracing;
        std::string here;
        const auto lines = tracing.LinesOf([&] {
            errno = EXDEV;
            EXPECT_EQ(0x618C4202U, PXR_ReportError(0x618C4202));
            here = std::to_string(__LINE__ - 1);
            EXPECT_EQ(EXDEV, errno);
            PXR_ReportError(0x618C4203);  // whose text is missing: the catalogue's own trace, and an empty text
        });
        EXPECT_THAT(lines, ElementsAre("1000 0 1 QNTR 64202-C 18C An argument is invalid. (" + here + ")\n",
                                       HasSubstr("AGT_ACCESS_CAT_FILE"), StartsWith("1000 0 1 QNTR 64203-C 18C  (")));
    });
}

}  // namespace
