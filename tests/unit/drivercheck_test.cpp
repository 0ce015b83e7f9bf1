#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "blescanner/btdrivercheck.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "platform/clock.h"
#include "platform/text.h"

namespace blescanner {
namespace {

const std::string kAgeWarning = "[WARNING] It is recommended to check for new Bluetooth ";
const std::string kKnownWarning = "[WARNING] Bluetooth driver ";

// Noon, so that the day is the same at nearly every offset from UTC.
std::string driver(const std::string& day, const std::string& manufacturer = "M",
                   const std::string& version = "1.2.3.4") {
    return R"({"description": "D", "manufacturer": ")" + manufacturer + R"(", "provider": "P", "date": ")" +
           day + R"(T12:00:00Z", "version": ")" + version + R"("})";
}

std::string device(const std::string& drivers) {
    return R"({"compatible": [)" + drivers + "]}";
}

std::string scenario(const std::string& devices) {
    return R"({"drivers": [)" + devices + "]}";
}

std::string repeated(const std::string& item, int count) {
    std::string list = item;
    while (--count > 0)
        list += "," + item;
    return list;
}

void checkAgainst(const DriversDb& driversDb) {
    checkBluetoothDrivers([&]() -> const DriversDb& { return driversDb; });
}

TEST(DriversDb, Lines) {
    const std::pair<std::string, DriversDb> cases[] = {
        {"", {}},
        {"a,b", {{L"a#b", L""}}},
        {"\n\na\n,b,c\na,,c\na,\r\n,\n", {}},
        {" a , b , c ,d,e,f,g,h\n", {{L" a # b ", L" c "}}},
        {"\xEF\xBB\xBF"
         "a,b,c\r\nd,e\r\n",
         {{L"a#b", L"c"}, {L"d#e", L""}}},
        {"a,b,first\na,b,last\n", {{L"a#b", L"last"}}},
        {"M\xC3\xBCller,1.0.0.0,\xC3\xBC\n", {{L"M\u00FCller#1.0.0.0", L"\u00FC"}}},
    };
    for (const auto& [text, records] : cases) {
        std::istringstream file(text);
        EXPECT_EQ(parseDriversDb(file), records) << text;
    }
}

TEST(DriversDb, FileMayBeMissing) {
    const auto file = std::filesystem::path(testing::TempDir()) / "known-drivers.db";
    sim::WorldScope world(R"({"drivers_db": ")" + file.generic_string() + R"("})");
    std::ofstream(file) << "a,b,c\n";
    EXPECT_EQ(readDriversDb(), (DriversDb{{L"a#b", L"c"}}));
    std::filesystem::remove(file);
    EXPECT_TRUE(readDriversDb().empty());
}

TEST(DriverCheck, RulesByDateAndManufacturer) {
    const DriversDb driversDb = {{L"M#1.2.3.4", L"Get 2."}, {L"An Intel Co#1.2.3.4", L"Get 3."}};
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"2014-12-31", "M", "known"},
        {"2015-01-01", "M", "age"},
        {"2016-12-31", "M", "age"},
        {"2017-02-28", "M", "age"},
        {"2017-03-01", "M", "known"},
        {"2017-03-01", "An Intel Co", "age"},
        {"2017-12-31", "An Intel Co", "age"},
        {"2018-01-01", "An Intel Co", "known"},
        {"2014-12-31", "An Intel Co", "known"},
        {"2017-03-01", "intel", ""},
    };
    for (const auto& [day, manufacturer, warning] : cases) {
        sim::WorldScope world(scenario(device(driver(day, manufacturer))));
        test::LogCapture log;
        checkAgainst(driversDb);
        EXPECT_EQ(log.countContaining(kAgeWarning), warning == "age") << day << manufacturer;
        EXPECT_EQ(log.countContaining(kKnownWarning), warning == "known") << day << manufacturer;
    }
}

// Shows the double shift wherever the local time is not UTC.
TEST(DriverCheck, ListingAndWarnings) {
    sim::WorldScope world(
        scenario(device(driver("2016-05-01") + "," + driver("2020-01-02", "N", "10.0.19041.65535"))));
    test::LogCapture log;
    checkAgainst({{L"N#10.0.19041.65535", L"Get 2."}});

    const auto dateText = [](platform::FileTime time) {
        return platform::toUtf8(platform::formatLongDateAndTime(platform::toCalendarTime(time)));
    };
    const auto once = platform::toLocalFileTime({131065776000000000});  // 2016-05-01 12:00
    const auto twice = platform::toLocalFileTime(once);
    auto texts = log.texts();
    ASSERT_EQ(texts.size(), 14U);
    EXPECT_EQ(texts[12], "Driver version is 10.0.19041.65535");
    EXPECT_EQ(texts[13], kKnownWarning + "\"N:P\" may require an update! Get 2.");
    texts.resize(7);
    const std::vector<std::string> expected = {
        "---------------",
        "Driver description D",
        "Driver manufacturer M",
        "Driver provider P",
        "Driver date is " + dateText(once),
        "Driver version is 1.2.3.4",
        kAgeWarning + "\"M:P:" + dateText(twice) + "\" driver version and update!"};
    EXPECT_EQ(texts, expected);
}

TEST(DriverCheck, LaterDuplicatesAreListedButNotJudged) {
    const std::pair<std::string, int> cases[] = {
        {device(driver("2016-05-01") + "," + driver("2016-05-01")), 1},
        {device(driver("2016-05-02") + "," + driver("2016-05-01")), 2},
        {device(driver("2016-05-01") + "," + driver("2016-05-02", "m")), 2},
        {device(driver("2016-05-01") + "," + driver("2020-05-01")), 1},
        {device(driver("2016-05-01")) + "," + device(driver("2016-05-01")), 2},
    };
    for (const auto& [devices, warnings] : cases) {
        sim::WorldScope world(scenario(devices));
        test::LogCapture log;
        checkAgainst({{L"M#1.2.3.4", L"Get 2."}});
        EXPECT_EQ(log.count("---------------"), 2);
        EXPECT_EQ(log.countContaining("[WARNING]"), warnings) << devices;
    }
}

TEST(DriverCheck, LimitsAndFailures) {
    const std::string drivers = driver("2020-01-01");
    const auto failing = [](const char* error) { return R"({"build_error": )" + std::string(error) + "}"; };
    const std::tuple<std::string, std::ptrdiff_t, std::ptrdiff_t> cases[] = {
        {device(repeated(drivers, 40)) + "," + repeated(device(drivers), 39), 32 + 32, 0},
        {device(drivers) + "," + failing("13") + "," + device(drivers), 1, 1},
        {device(drivers) + "," + failing("256") + "," + device(drivers), 1, 0},
    };
    for (const auto& [devices, listed, failures] : cases) {
        sim::WorldScope world(scenario(devices));
        test::LogCapture log;
        checkAgainst({});
        EXPECT_EQ(log.count("---------------"), listed);
        EXPECT_EQ(log.countContaining("Driver check: SetupDiBuildDriverInfoList err - "), failures);
    }
}

}  // namespace
}  // namespace blescanner
