#include <gtest/gtest.h>

#include <fstream>

#include "blescanner/btdrivercheck.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "tests/unit/support.h"

namespace blescanner {
namespace {

const std::string kAgeWarning = "[WARNING] It is recommended to check for new Bluetooth ";
const std::string kKnownWarning = "[WARNING] Bluetooth driver ";
const DriversDb kDriversDb = {{L"M#1.2.3.4", L"Get 2."}, {L"An Intel Co#1.2.3.4", L"Get 3."}};

// Noon, so that the day is the same at nearly every offset from UTC.
std::string driver(const std::string& day, const std::string& manufacturer = "M") {
    return R"({"description": "D", "manufacturer": ")" + manufacturer + R"(", "provider": "P", "date": ")" +
           day + R"(T12:00:00Z", "version": "1.2.3.4"})";
}

std::string device(const std::string& drivers) {
    return R"({"compatible": [)" + drivers + "]}";
}

std::string repeated(const std::string& item, int count) {
    return count == 1 ? item : item + "," + repeated(item, count - 1);
}

// Checks these devices and returns the log.
std::unique_ptr<test::LogCapture> check(const std::string& devices) {
    sim::WorldScope world(R"({"drivers": [)" + devices + "]}");
    auto log = std::make_unique<test::LogCapture>();
    checkBluetoothDrivers([]() -> const DriversDb& { return kDriversDb; });
    return log;
}

TEST(DriversDb, Lines) {
    const std::pair<std::string, DriversDb> cases[] = {
        {"", {}},
        {"a,b", {{L"a#b", L""}}},
        {"\n\na\n,b,c\na,,c\na,\r\n,\n", {}},
        {" a , b , c ,d,e,f,g,h\n", {{L" a # b ", L" c "}}},
        {"\xEF\xBB\xBFm,b,c\r\nd,e\r\n", {{L"m#b", L"c"}, {L"d#e", L""}}},
        {"a,b,first\na,b,last\n", {{L"a#b", L"last"}}},
        {"M\xC3\xBCller,1.0.0.0,\xC3\xBC\n", {{L"M\u00FCller#1.0.0.0", L"\u00FC"}}},
        {std::string("\xFF\xFE\xFC\0,\0b\0\n\0d\0,\0e\0\n\0?", 19), {{L"\u00FC#b", L""}, {L"d#e", L""}}},
        {std::string("\xFE\xFF\0\xFC\0,\0b\0\r\0\n", 12), {{L"\u00FC#b", L""}}},
    };
    for (const auto& [text, records] : cases) {
        const test::LogCapture log;
        EXPECT_EQ(parseDriversDb(text, "known.db"), records) << text;
        EXPECT_EQ(log.count("known.db"), 0) << text;
    }
}

TEST(DriversDb, LinesOfAnotherCodePageAreToldAndTheOthersUsed) {
    const test::LogCapture log;
    EXPECT_EQ(parseDriversDb("M\xFCller,1,a\na,b,c\nd,e,\xFC\n", "known.db"), (DriversDb{{L"a#b", L"c"}}));
    EXPECT_TRUE(log.find(
        "Driver check: known.db has lines that are not UTF-8 and are not used: 2. Save the file as UTF-8."));
}

TEST(DriversDb, FileMayBeMissing) {
    const test::TemporaryFolder folder;
    const auto file = folder.path() / "known.db";
    sim::WorldScope world(R"({"drivers_db": ")" + file.generic_string() + R"("})");
    EXPECT_TRUE(readDriversDb().empty());
    std::ofstream(file) << "a,b,c\n";
    EXPECT_EQ(readDriversDb(), (DriversDb{{L"a#b", L"c"}}));
}

TEST(DriverCheck, RulesByDateAndManufacturer) {
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"2014-12-31", "M", "known"},
        {"2015-01-01", "M", "age"},
        {"2017-02-28", "M", "age"},
        {"2017-03-01", "M", "known"},
        {"2014-12-31", "An Intel Co", "known"},
        {"2017-03-01", "An Intel Co", "age"},
        {"2017-12-31", "An Intel Co", "age"},
        {"2018-01-01", "An Intel Co", "known"},
        {"2017-03-01", "intel", ""},
    };
    for (const auto& [day, manufacturer, warning] : cases) {
        const auto log = check(device(driver(day, manufacturer)));
        EXPECT_EQ(log->count(kAgeWarning), warning == "age") << day << manufacturer;
        EXPECT_EQ(log->count(kKnownWarning), warning == "known") << day << manufacturer;
    }
}

// Where the local time is not UTC, the date in the warning is shifted twice.
TEST(DriverCheck, ListingAndWarnings) {
    const auto dateText = [](platform::FileTime time) {
        return platform::toUtf8(platform::formatLongDateAndTime(platform::toCalendarTime(time)));
    };
    const auto once = platform::toLocalFileTime({131065776000000000});  // 2016-05-01 12:00
    const auto twice = platform::toLocalFileTime(once);
    const auto texts = check(device(driver("2016-05-01")))->texts();
    ASSERT_EQ(texts.size(), 7U);
    EXPECT_EQ(texts[4], "Driver date is " + dateText(once));
    EXPECT_EQ(texts[6], kAgeWarning + "\"M:P:" + dateText(twice) + "\" driver version and update!");
    EXPECT_TRUE(
        check(device(driver("2020-01-02")))->find(kKnownWarning + "\"M:P\" may require an update! Get 2."));
}

TEST(DriverCheck, LaterDuplicatesLimitsAndFailures) {
    const std::string one = driver("2020-01-01", "N"), old = driver("2016-05-01");
    const auto failing = [](const char* error) { return R"({"build_error": )" + std::string(error) + "}"; };
    const std::tuple<std::string, int, int, int> cases[] = {
        {device(old + "," + old), 2, 1, 0},
        {device(old + "," + driver("2016-05-02", "m")), 2, 2, 0},
        {device(old + "," + driver("2020-05-01")), 2, 1, 0},
        {device(old) + "," + device(old), 2, 2, 0},
        {device(repeated(one, 40)) + "," + repeated(device(one), 39), 32 + 32, 0, 0},
        {device(one) + "," + failing("13") + "," + device(one), 1, 0, 1},
        {device(one) + "," + failing("256") + "," + device(one), 1, 0, 0},
    };
    {
        sim::WorldScope world(R"({"faults": [{"on": "drivers", "do": "error:0x80070005"}]})");
        const test::LogCapture log;
        checkBluetoothDrivers();
        EXPECT_EQ(log.troubles(),
                  std::vector<std::string>{"ERROR: Driver check: SetupDiGetClassDevs failed: 5"});
    }
    const auto cut = check(R"({"end_error": 5, "compatible": [)" + one + "]}," + device(one));
    EXPECT_EQ(cut->troubles(),
              std::vector<std::string>{"WARNING: Driver check: SetupDiEnumDriverInfo err - 5"});
    EXPECT_EQ(cut->count("---------------"), 2) << "the next device has its turn";
    for (const auto& [devices, listed, warnings, failures] : cases) {
        const auto log = check(devices);
        EXPECT_EQ(log->count("---------------"), listed) << devices;
        EXPECT_EQ(log->count("[WARNING]"), warnings) << devices;
        EXPECT_EQ(log->count("SetupDiBuildDriverInfoList err - "), failures);
    }
}

}  // namespace
}  // namespace blescanner
