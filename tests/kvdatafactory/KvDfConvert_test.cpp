// What raw readings mean. The true values were worked out from the formula of the IPMI sensor records,
// y = L[(M x + B 10^Bexp) 10^Rexp], by hand.
#include "kvdatafactory/KvDfConvert.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "kvdatafactory/Inventory/KvIfConvert.h"
#include "libplatform/KvDfConvert.h"

namespace {

constexpr uint8_t kUnsigned = 0x00;
constexpr uint8_t kOnes = 0x40;
constexpr uint8_t kTwos = 0x80;
constexpr uint8_t kNoAnalog = 0xC0;

/// The conversion bytes of a full record.
struct Factors {
    int m = 1;
    int b = 0;
    int resultExponent = 0;
    int bExponent = 0;
    uint8_t linearization = 0;
    uint8_t format = kUnsigned;
    uint8_t unit = 0;

    KVPS_SENSOR_DATA Sensor(uint8_t flags = 0xC0) const {
        KVPS_SENSOR_DATA data = {};
        data.readingType = 1;
        data.flags = flags;
        const uint8_t bytes[] = {format,
                                 unit,
                                 0,
                                 linearization,
                                 static_cast<uint8_t>(m & 0xFF),
                                 static_cast<uint8_t>(m >> 2 & 0xC0),
                                 static_cast<uint8_t>(b & 0xFF),
                                 static_cast<uint8_t>(b >> 2 & 0xC0),
                                 0,
                                 static_cast<uint8_t>((resultExponent & 0x0F) << 4 | (bExponent & 0x0F))};
        std::copy(std::begin(bytes), std::end(bytes), data.conversion);
        return data;
    }
};

TEST(SensorValue, FormulaFormatsAndLinearizations) {
    struct Row {
        uint8_t raw;
        Factors factors;
        double value;
    };
    const Row rows[] = {
        // formats
        {0, {}, 0},
        {255, {}, 255},
        {0x7F, {.format = kTwos}, 127},
        {0x80, {.format = kTwos}, -128},
        {0xFE, {.format = kTwos}, -2},
        {0xFF, {.format = kTwos}, -1},
        {0xFE, {.format = kOnes}, -1},
        {0xFF, {.format = kOnes}, 0},
        {0x80, {.format = kOnes}, -127},
        {0x05, {.format = kOnes}, 5},
        {0xFE, {.format = kNoAnalog}, -2},
        // M and B, ten bits each, signed
        {25, {.m = 2}, 50},
        {1, {.m = 511}, 511},
        {1, {.m = -512}, -512},
        {3, {.m = -1}, -3},
        {200, {.m = 256}, 51200},
        {10, {.m = 0, .b = 511}, 511},
        {10, {.m = 0, .b = -512}, -512},
        {10, {.m = 1, .b = -20}, -10},
        {255, {.m = 511, .b = 511}, 130816},
        // exponents, four bits each, signed
        {100, {.resultExponent = -1}, 10},
        {100, {.resultExponent = -8}, 1e-6},
        {1, {.resultExponent = 7}, 1e7},
        {1, {.b = 5, .bExponent = 2}, 501},
        {1, {.b = 5, .bExponent = -1}, 1.5},
        {1, {.m = 0, .b = 1, .bExponent = 7}, 1e7},
        {1, {.m = 0, .b = 1, .resultExponent = -8, .bExponent = 7}, 0.1},
        {191, {.m = 63, .resultExponent = -3}, 12.033},
        {193, {.m = 26, .resultExponent = -3}, 5.018},
        {72, {.m = 75}, 5400},
        {178, {.m = 10, .resultExponent = -3}, 1.78},
        {100, {.m = 4, .b = -35, .resultExponent = -1, .bExponent = 1}, 5},
        // linearizations
        {100, {.linearization = 1}, 4.605170185988092},
        {0, {.linearization = 1}, -std::numeric_limits<double>::infinity()},
        {100, {.linearization = 2}, 2},
        {1, {.linearization = 2}, 0},
        {8, {.linearization = 3}, 3},
        {1, {.linearization = 4}, 2.718281828459045},
        {0, {.linearization = 4}, 1},
        {3, {.linearization = 5}, 1000},
        {10, {.linearization = 6}, 1024},
        {0xFF, {.linearization = 6, .format = kTwos}, 0.5},
        {4, {.linearization = 7}, 0.25},
        {0, {.linearization = 7}, std::numeric_limits<double>::infinity()},
        {12, {.linearization = 8}, 144},
        {0xF4, {.linearization = 8, .format = kTwos}, 144},
        {5, {.linearization = 9}, 125},
        {0xFB, {.linearization = 9, .format = kTwos}, -125},
        {144, {.linearization = 10}, 12},
        {125, {.linearization = 11}, 5},
        {0, {.linearization = 11}, 0},
        {100, {.linearization = 12}, 100},
        {100, {.linearization = 0x70}, 100},
        {100, {.linearization = 0xFF}, 100},
        {50, {.m = 2, .linearization = 10}, 10},
        {20, {.resultExponent = -1, .linearization = 5}, 100},
    };
    for (const Row& row : rows) {
        const KVPS_SENSOR_DATA sensor = row.factors.Sensor();
        const double value = SensorValue(row.raw, sensor.conversion);
        const std::string what = "raw " + std::to_string(row.raw) + ", M " + std::to_string(row.factors.m) +
                                 ", linearization " + std::to_string(row.factors.linearization);
        if (std::isinf(row.value)) {
            EXPECT_EQ(row.value, value) << what;
        } else {
            EXPECT_NEAR(row.value, value, std::abs(row.value) * 1e-12) << what;
        }
    }
    EXPECT_TRUE(std::isnan(SensorValue(0xFF, Factors{.linearization = 10, .format = kTwos}.Sensor().conversion)));
}

TEST(SensorValue, CutsTowardsZeroWithin32Bits) {
    struct Row {
        double value;
        uint32_t out;
    };
    for (const auto& [value, out] :
         {Row{456.7, 456}, Row{-456.7, static_cast<uint32_t>(-456)}, Row{0.9, 0}, Row{2147483647.9, 2147483647},
          Row{2147483648.0, kUnknownValue}, Row{-2147483648.9, 0x80000000}, Row{-2147483649.0, kUnknownValue},
          Row{1e300, kUnknownValue}, Row{std::nan(""), kUnknownValue},
          Row{std::numeric_limits<double>::infinity(), kUnknownValue}}) {
        EXPECT_EQ(out, TruncateValue(value)) << value;
    }
}

TEST(SensorValue, Units) {
    struct Row {
        uint8_t from;
        uint8_t to;
        double value;
        double out;
    };
    const Row rows[] = {{2, 1, 212, 100},
                        {2, 1, -40, -40},
                        {3, 1, 300, 26.85},
                        {1, 2, 100, 212},
                        {3, 2, 273.15, 32},
                        {1, 3, 0, 273.15},
                        {2, 3, 32, 273.15},
                        {0x47, 0x46, 2, 2048},
                        {0x48, 0x46, 1, 1048576},
                        {0x49, 0x46, 1, 1073741824},
                        {0x46, 0x47, 512, 0.5},
                        {0x48, 0x47, 3, 3072},
                        {0x49, 0x47, 1, 1048576},
                        {0x46, 0x48, 1048576, 1},
                        {0x47, 0x48, 512, 0.5},
                        {0x49, 0x48, 2, 2048},
                        {0x46, 0x49, 1073741824, 1},
                        {0x47, 0x49, 1048576, 1},
                        {0x48, 0x49, 512, 0.5}};
    for (const Row& row : rows) {
        double out = 0;
        EXPECT_TRUE(ConvertUnit(row.value, row.from, row.to, out));
        EXPECT_NEAR(row.out, out, 1e-9) << int{row.from} << " to " << int{row.to};
    }
    double untouched = 7;
    for (const auto& [from, to] : {std::pair<uint8_t, uint8_t>{1, 4}, {4, 1}, {0x45, 0x46}, {0x46, 0x4A}, {1, 0x46}}) {
        EXPECT_FALSE(ConvertUnit(1, from, to, untouched));
    }
    EXPECT_EQ(7, untouched);
}

// ---- Through the exported functions

TEST(SensorValue, WithUnitSaysWhyThereIsNone) {
    struct Row {
        const char* what;
        Factors factors;
        uint8_t flags;
        uint8_t unit;
        uint32_t code;
        double value;
    };
    constexpr double kNone = kNoSensorValue;
    for (const Row& row :
         {Row{"the unit asked for", {.unit = 1}, 0xC0, 1, 0, 25},
          Row{"a sensor without a unit", {.unit = 0}, 0xC0, 4, 0, 25},
          Row{"converted", {.m = 2, .unit = 2}, 0xC0, 1, 0, 10}, Row{"no way", {.unit = 1}, 0xC0, 4, 0x60B51302, kNone},
          Row{"events disabled", {.unit = 1}, 0x40, 1, 0, kNone}, Row{"not available", {.unit = 1}, 0xE0, 1, 0, kNone},
          Row{"not scanned", {.unit = 1}, 0x80, 1, 0x60B5B10C, 0}}) {
        KVPS_SENSOR_DATA sensor = row.factors.Sensor(row.flags);
        double value = 0;
        EXPECT_EQ(row.code, KvDfGetSensorValueWithUnit(25, &sensor, &value, row.unit, nullptr)) << row.what;
        EXPECT_NEAR(row.value, value, 1e-9) << row.what;
    }
    KVPS_SENSOR_DATA sensor = Factors{}.Sensor(0x80);
    double value = 0;
    EXPECT_EQ(0x60B6B10Cu, KvDfGetSensorValue(25, &sensor, &value, nullptr));
    EXPECT_EQ(0x60B64201u, KvDfGetSensorValue(25, nullptr, &value, nullptr));
    EXPECT_EQ(0x60B54201u, KvDfGetSensorValueWithUnit(25, &sensor, nullptr, 1, nullptr));
}

// ---- Presence and state

constexpr uint8_t kScanned = 0xC0;
constexpr uint8_t kUnavailable = 0xE0;

struct CodeRow {
    uint8_t readingType;
    uint8_t sensorType;
    uint8_t flags;
    uint8_t states;
    uint8_t states2;
    long code;  // -1: a failure
};

std::ostream& operator<<(std::ostream& out, const CodeRow& row) {
    return out << std::hex << "type " << int{row.readingType} << " of sensor " << int{row.sensorType} << ", flags "
               << int{row.flags} << ", states " << int{row.states} << ' ' << int{row.states2};
}

void ExpectCodes(const std::vector<CodeRow>& rows, uint32_t failure,
                 uint32_t (*get)(KVPS_SENSOR_DATA*, unsigned long*, CKvColumn*)) {
    for (const CodeRow& row : rows) {
        KVPS_SENSOR_DATA sensor = {};
        sensor.readingType = row.readingType;
        sensor.sensorType = row.sensorType;
        sensor.flags = row.flags;
        sensor.states[0] = row.states;
        sensor.states[1] = row.states2;
        unsigned long code = 99;
        EXPECT_EQ(row.code < 0 ? failure : 0, get(&sensor, &code, nullptr)) << row;
        EXPECT_EQ(row.code < 0 ? 0 : static_cast<unsigned long>(row.code), code) << row;
    }
}

TEST(ExistCode, EveryCellOfTheTable) {
    ExpectCodes({{0x08, 1, 0x80, 2, 0, 2},
                 {0x08, 1, 0x20, 2, 0, 0},
                 {0x08, 1, 0x00, 2, 0, 2},
                 {0x08, 1, 0xA0, 2, 0, 2},
                 {0x08, 1, kScanned, 1, 0, 2},
                 {0x08, 1, kScanned, 2, 0, 1},
                 {0x08, 1, kScanned, 3, 0, 2},
                 {0x08, 1, kScanned, 0, 0, 0},
                 {0x08, 1, kUnavailable, 2, 0, 0},
                 {0x03, 4, kScanned, 0, 0, 1},
                 {0x03, 4, kUnavailable, 0, 0, 0},
                 {0x6F, 8, kScanned, 1, 0, 1},
                 {0x6F, 8, kScanned, 2, 0, 2},
                 {0x6F, 8, kUnavailable, 1, 0, 2},
                 {0x6F, 7, kScanned, 0x80, 0, 1},
                 {0x6F, 7, kScanned, 0x7F, 0, 2},
                 {0x6F, 7, kUnavailable, 0x80, 0, 2},
                 {0x6F, 0xC1, kScanned, 1, 0, 1},
                 {0x6F, 0xC1, kScanned, 2, 0, 2},
                 {0x6F, 0xC1, kUnavailable, 1, 0, 0},
                 {0x6F, 0x0C, kScanned, 1, 0, -1},
                 {0x01, 1, kScanned, 0, 0, -1},
                 {0x0B, 8, kScanned, 1, 0, -1}},
                0x60C81302, KvIfGetExistCode);
}

TEST(StateCode, EveryCellOfTheTable) {
    ExpectCodes(
        {{0x01, 1, 0x80, 0x3F, 0, 0},      {0x01, 1, 0x40, 0x3F, 0, 0},      {0x01, 1, kUnavailable, 0x3F, 0, 0},
         {0x01, 1, kScanned, 0x04, 0, 6},  {0x01, 1, kScanned, 0x20, 0, 6},  {0x01, 1, kScanned, 0x02, 0, 5},
         {0x01, 1, kScanned, 0x10, 0, 5},  {0x01, 1, kScanned, 0x0A, 0, 5},  {0x01, 1, kScanned, 0x01, 0, 4},
         {0x01, 1, kScanned, 0x08, 0, 4},  {0x01, 1, kScanned, 0xC0, 0, 3},  {0x03, 4, kScanned, 2, 0, 6},
         {0x03, 4, kScanned, 1, 0, 3},     {0x03, 4, kUnavailable, 2, 0, 0}, {0x03, 1, kScanned, 2, 0, -1},
         {0x05, 1, kScanned, 1, 0, 1},     {0x05, 1, kScanned, 2, 0, 2},     {0x05, 1, kScanned, 0, 0, 0},
         {0x05, 1, kUnavailable, 1, 0, 0}, {0x06, 1, kScanned, 2, 0, 6},     {0x06, 1, kScanned, 1, 0, 3},
         {0x06, 1, kUnavailable, 2, 0, 0}, {0x07, 1, kScanned, 0x08, 0, 6},  {0x07, 1, kScanned, 0x40, 0, 6},
         {0x07, 1, kScanned, 0x04, 0, 5},  {0x07, 1, kScanned, 0x20, 0, 5},  {0x07, 1, kScanned, 0x02, 0, 4},
         {0x07, 1, kScanned, 0x10, 0, 4},  {0x07, 1, kScanned, 0x81, 0, 3},  {0x07, 1, kUnavailable, 0x08, 0, 0},
         {0x09, 1, kScanned, 1, 0, 4},     {0x09, 1, kScanned, 2, 0, 3},     {0x09, 1, kScanned, 0, 0, 0},
         {0x09, 1, kUnavailable, 1, 0, 0}, {0x6F, 8, kScanned, 3, 0, 4},     {0x6F, 8, kScanned, 2, 0, 3},
         {0x6F, 8, kScanned, 1, 0, 3},     {0x6F, 8, kUnavailable, 3, 0, 3}, {0x6F, 7, kUnavailable, 0x80, 0, 2},
         {0x6F, 7, kScanned, 0x80, 2, 2},  {0x6F, 7, kScanned, 0x80, 3, 2},  {0x6F, 7, kScanned, 0x80, 1, 7},
         {0x6F, 7, kScanned, 0, 0, 2},     {0x6F, 7, kScanned, 0x82, 0, 4},  {0x6F, 7, kScanned, 0x80, 0, 3},
         {0x6F, 0xC1, kScanned, 2, 0, 7},  {0x6F, 0xC1, kScanned, 1, 0, 3},  {0x6F, 0xC1, kUnavailable, 2, 0, 0},
         {0x6F, 0x0C, kScanned, 1, 0, -1}, {0x02, 1, kScanned, 1, 0, -1},    {0x08, 1, kScanned, 1, 0, -1}},
        0x60C91302, KvIfGetState);
}

TEST(StateCode, OfFans) {
    for (const auto& [code, status] : {std::pair<unsigned long, unsigned long>{3, 3},
                                       {4, 4},
                                       {5, 4},
                                       {6, 4},
                                       {0, 0},
                                       {1, 0},
                                       {2, 0},
                                       {7, 0},
                                       {99, 0}}) {
        unsigned long state = code;
        KvIfCnvertFanStatus(&state);
        EXPECT_EQ(status, state) << code;
    }
}

TEST(CapacityRecord, Decides) {
    struct Row {
        uint32_t result;
        uint8_t byte1;
        uint8_t byte2;
        int decided;
        unsigned long exist;
        unsigned long state;
    };
    for (const Row& row :
         {Row{0x6000B133, 0x80, 0, 1, 2, 10}, Row{0x6000B107, 0x80, 0, 0, 99, 99}, Row{0, 0x00, 0, 1, 2, 13},
          Row{0, 0x02, 0, 1, 2, 13}, Row{0, 0x82, 0, 1, 2, 15}, Row{0, 0x83, 0, 1, 1, 3}, Row{0, 0x80, 0, 1, 1, 3},
          Row{0, 0x81, 1, 1, 2, 11}, Row{0, 0x80, 2, 1, 1, 4}, Row{0, 0x80, 3, 1, 2, 12}, Row{0, 0x80, 4, 0, 99, 99}}) {
        const KVPS_COD_SENSOR_DATA record = {{0, row.byte1, row.byte2, 0}};
        unsigned long exist = 99;
        unsigned long state = 99;
        EXPECT_EQ(row.decided, KvIfValidCodInfo(&record, row.result, &exist, &state));
        EXPECT_EQ(row.exist, exist) << std::hex << int{row.byte1} << ' ' << int{row.byte2};
        EXPECT_EQ(row.state, state) << std::hex << int{row.byte1} << ' ' << int{row.byte2};
    }
}

}  // namespace
