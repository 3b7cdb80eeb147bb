#include "kvdatafactory/Alert/KvAlertFactoryFunc_SelDb.h"

#include <gmock/gmock.h>

#include <ctime>

#include "tests/support/SelMachine.h"

namespace {

using testing::StartsWith;

using SelDbAlert = SelMachine;

TEST_F(SelDbAlert, OfAFailedDatabaseJoinsTheOthersOnce) {
    setenv("LANG", "ja_JP.eucJP", 1);
    Run([this] {
        unsigned long count = 1;
        auto* alerts = new KVDF_ALERT[1];
        alerts[0].id = 7;
        alerts[0].message = "another one";
        EXPECT_EQ(0x60004201U, AddAlertOccurredBySELDb(nullptr, &alerts));
        EXPECT_EQ(0x60004201U, AddAlertOccurredBySELDb(&count, nullptr));
        StartWith(1);
        Write(kDb, "");
        Start();
        Poll();
        ASSERT_EQ(0U, AddAlertOccurredBySELDb(&count, &alerts));
        ASSERT_EQ(2U, count);
        EXPECT_EQ(7U, alerts[0].id);
        EXPECT_STREQ("another one", alerts[0].message);
        EXPECT_EQ(64016U, alerts[1].id);
        EXPECT_EQ(10U, alerts[1].level);
        EXPECT_EQ(16U, alerts[1].portion);
        EXPECT_LE(time(nullptr) - 5, static_cast<time_t>(alerts[1].time));
        EXPECT_STREQ("The database of the system event log cannot be used. Events may be reported again or be lost.",
                     alerts[1].message2);
        EXPECT_THAT(std::string(alerts[1].message), StartsWith("\x83V\x83X")) << "in the agent's language";
        EXPECT_EQ(0U, AddAlertOccurredBySELDb(&count, &alerts));
        EXPECT_EQ(2U, count) << "told once";
        delete[] alerts;
    });
    unsetenv("LANG");
}

}  // namespace
