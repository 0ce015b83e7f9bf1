// The Windows back end's adapters and drivers, with the devices that tests/wine_devices puts into Wine.
#include "blescanner/blehelper.h"
#include "blescanner/btdrivercheck.h"
#include "log_capture.h"
#include "platform/clock.h"
#include "platform/driver.h"
#include "platform/text.h"
#include "sleep_recorder.h"
#include "tests/e2e/harness.h"
#include "tests/wine_devices/test_devices.h"

// Has to come after the system's headers.
#include <gtest/gtest.h>

#include <fstream>

namespace blescanner {
namespace {

using namespace wine_devices;
using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

const DriverPackage kPackages[] = {
    {"Old radio", "M", "P", {2016, 5, 0, 1, 0, 0, 0, 0}, {1, 2, 3, 4}},
    {"Known radio", "An Intel Co", "Q", {2020, 1, 0, 31, 0, 0, 0, 0}, {10, 0, 19041, 65535}},
};

}  // namespace

// Wine 8 does not fill in a driver's date and version. This does it as Windows would: the date as midnight in
// UTC.
extern "C" decltype(&::SetupDiEnumDriverInfoW) __real___imp_SetupDiEnumDriverInfoW;

static BOOL WINAPI enumDriverInfo(HDEVINFO set, SP_DEVINFO_DATA* device, DWORD type, DWORD index,
                                  SP_DRVINFO_DATA_W* driver) {
    if (!__real___imp_SetupDiEnumDriverInfoW(set, device, type, index, driver)) return FALSE;
    for (const auto& package : kPackages) {
        if (platform::widen(package.description) != driver->Description) continue;
        ::SystemTimeToFileTime(&package.date, &driver->DriverDate);
        driver->DriverVersion = 0;
        for (const unsigned part : package.version)
            driver->DriverVersion = driver->DriverVersion << 16 | part;
    }
    return TRUE;
}

extern "C" {
decltype(&::SetupDiEnumDriverInfoW) __wrap___imp_SetupDiEnumDriverInfoW = &enumDriverInfo;
}

namespace {

class WindowsRadios : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { driver_ = std::make_unique<RadioDriver>(); }
    static void TearDownTestSuite() { driver_.reset(); }
    void TearDown() override {
        for (const auto end = std::chrono::steady_clock::now() + e2e::kDeadline;
             openFiles() != 0 && std::chrono::steady_clock::now() < end;)
            ::Sleep(1);
        EXPECT_EQ(openFiles(), 0);
    }
    static LONG openFiles() {
        const auto reports = driver_->reports();
        return reports[0].openFiles + reports[1].openFiles + reports[2].openFiles;
    }

    // Returns the command bytes that the first radio got.
    static std::vector<Bytes> setIntervals() {
        scanIntervalsConfigured = false;
        const test::SleepRecorder recorder;
        setScanIntervals();
        EXPECT_TRUE(waitForScanConfigThread(std::chrono::seconds(20)));
        const RadioReport report = driver_->reports()[0];
        std::vector<Bytes> commands;
        for (ULONG index = 0; index < report.commandCount; ++index) {
            const auto& command = report.commands[index];
            commands.emplace_back(command.input, command.input + command.inputSize);
            EXPECT_EQ(command.outputSize, index == 0 ? 40U : 0U);
        }
        return commands;
    }

    static inline std::unique_ptr<RadioDriver> driver_;
};

TEST_F(WindowsRadios, NamesAndVersionsOfThoseThatAnswer) {
    driver_->setUp({{L"K\u00FCche", 0, 0, {}, 9, 200}, {L"B", 31, 0, {}, 9, 9}, {L"C", 0, 5, {}, 9, 9}});
    const test::LogCapture log;
    std::vector<RadioVersionInfo> list;
    EXPECT_TRUE(enumerateRadioVersions(list));
    EXPECT_EQ(list, (std::vector<RadioVersionInfo>{{L"K\u00FCche", 9, 200}}));
    EXPECT_TRUE(log.find("getBLEProtocolSupport: Could not get Bluetooth name, using instance! 31"));
    EXPECT_TRUE(log.find("getBLEProtocolSupport: No LMP version read! 5"));
}

TEST_F(WindowsRadios, ScanCommands) {
    const Bytes plain = {0, 0, 0, 0, 29, 0, 29, 0};
    const Bytes for1809 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0};
    const Bytes for1903 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0, 29, 0, 0, 0, 0, 0, 0, 0};
    const std::tuple<RadioSetup, std::vector<Bytes>, std::string> cases[] = {
        {{L"A", 0, 0, {0, 0, 0}, 9, 9}, {plain}, "Scan config thread terminated..."},
        {{L"A", 0, 0, {997, 0, 0}, 9, 9}, {plain}, "Configured BLE scan interval!"},
        {{L"A", 0, 0, {87, 0, 5}, 9, 9},
         {plain, for1809, for1903},
         "[1903+] error in INTERVAL _COMMAND code 5"},
    };
    for (const auto& [radio, commands, line] : cases) {
        driver_->setUp({radio, radio});
        const test::LogCapture log;
        EXPECT_EQ(setIntervals(), commands);
        EXPECT_TRUE(log.find(line)) << line;
        EXPECT_EQ(driver_->reports()[1].commandCount, 0U);
    }
}

TEST_F(WindowsRadios, NoRadios) {
    driver_->setUp({});
    const test::LogCapture log;
    std::vector<RadioVersionInfo> list;
    EXPECT_FALSE(enumerateRadioVersions(list));
    EXPECT_EQ(setIntervals(), std::vector<Bytes>{});
    EXPECT_FALSE(scanIntervalsConfigured);
    EXPECT_TRUE(log.find("setScanInterval: Could not find BLE device to work with! 259"));
}

TEST_F(WindowsRadios, NoHandleStaysOpen) {
    const BluetoothDevice device(kPackages);
    const DriversDb noDrivers;
    std::size_t before = 0;
    for (int round = 0; round <= 20; ++round) {
        driver_->setUp({{L"A", 0, 0, {5, 5, 5}, 9, 9}, {L"B", 31, 0, {}, 9, 9}});
        std::vector<RadioVersionInfo> list;
        enumerateRadioVersions(list);
        setIntervals();
        checkBluetoothDrivers([&]() -> const DriversDb& { return noDrivers; });
        if (round == 0) before = e2e::ownResources().handles;
    }
    EXPECT_LE(e2e::ownResources().handles, before + e2e::kResourceNoise);
}

// The test runs two hours east of UTC. The date in the listing is shifted once, that in the warning twice.
TEST(WindowsDrivers, ListingAndWarnings) {
    const auto text = [](const platform::CalendarTime& time) {
        return platform::toUtf8(platform::formatLongDateAndTime(time));
    };
    std::ofstream(platform::driversDbPath()) << "An Intel Co,10.0.19041.65535,Get 2.\n";
    const BluetoothDevice device(kPackages);
    const test::LogCapture log;
    checkBluetoothDrivers();
    std::filesystem::remove(platform::driversDbPath());
    const Texts expected = {
        "---------------",
        "Driver description Old radio",
        "Driver manufacturer M",
        "Driver provider P",
        "Driver date is " + text({2016, 5, 1, 2, 0, 0}),
        "Driver version is 1.2.3.4",
        "[WARNING] It is recommended to check for new Bluetooth \"M:P:" + text({2016, 5, 1, 4, 0, 0}) +
            "\" driver version and update!",
        "---------------",
        "Driver description Known radio",
        "Driver manufacturer An Intel Co",
        "Driver provider Q",
        "Driver date is " + text({2020, 1, 31, 2, 0, 0}),
        "Driver version is 10.0.19041.65535",
        "[WARNING] Bluetooth driver \"An Intel Co:Q\" may require an update! Get 2.",
    };
    EXPECT_EQ(log.texts(), expected);
}

}  // namespace
}  // namespace blescanner
