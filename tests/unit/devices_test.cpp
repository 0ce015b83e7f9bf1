// Radios, adapters, drivers, scan timing and pairing requests. docs/replies.md is the list of most cases.
#include <fstream>

#include "blescanner/btdrivercheck.h"
#include "blescanner/waiting.h"
#include "platform/clock.h"
#include "tests/unit/shell_fixture.h"

namespace blescanner {
namespace {

using namespace test;

TEST(Radios, AreUsedAsTheDocumentSays) {
    expectRows("replies.md", "Radios", [](const Texts& cells) -> Texts {
        ShellWorld world("{" + cells[1] + "}");
        StopSignal stop;
        if (cells[0] == "reset, stopped before") stop.stop();
        Sleeps slept;
        platform::setSleepObserver([&](std::chrono::milliseconds duration) {
            slept.push_back(duration.count());
            EXPECT_EQ(isBluetoothResetting(), cells[0].starts_with("reset"));
            if (cells[0] == "reset, stopped in its first pause") stop.stop();
        });
        bool stopped = false;
        std::uint32_t counter = 0;
        try {
            if (cells[0] == "look") checkBluetoothRadio(counter, false, stop);
            if (cells[0] == "switch on") switchBluetoothOn();
            if (cells[0].starts_with("reset")) resetBluetooth(stop);
        } catch (const Stopped&) {
            stopped = true;
        }
        EXPECT_EQ(stopped, cells[0].find("stopped") != std::string::npos);
        EXPECT_FALSE(isBluetoothResetting());
        Texts switched, log = world.log.texts();
        for (const auto state : world.world().radioRequests.all())
            switched.emplace_back(state == platform::RadioState::on ? "on" : "off");
        std::erase_if(log, [](const auto& line) { return line.starts_with("Radio object state is now"); });
        return {joined(slept), joined(switched, ", "), joined(log, "<br>")};
    });
}

TEST(Adapters, SupportWhatTheDocumentSays) {
    expectRows("replies.md", "Adapters", [](const Texts& cells) -> Texts {
        ShellWorld world(R"({"adapters": [{"name": "A", "lmp": )" + cells[0] + "}]}");
        std::uint32_t count = 3;
        EXPECT_TRUE(getBLEProtocolSupport(&count));
        return {world.log.texts().back(), count == 3 ? "no" : count == 4 ? "yes" : "?"};
    });
}

TEST(Adapters, Number) {
    for (const std::size_t adapters : {0, 1, 33, 34, 40}) {
        std::string list;
        for (std::size_t count = 0; count < adapters; ++count)
            list += std::string(list.empty() ? "" : ",") + R"({"name": "C", "lmp": 6, "hci": 200})";
        ShellWorld world(R"({"adapters": [)" + list + "]}");
        std::vector<RadioVersionInfo> infos;
        EXPECT_EQ(enumerateRadioVersions(infos), adapters > 0);
        EXPECT_EQ(infos, std::vector(std::min<std::size_t>(adapters, 34), RadioVersionInfo{L"C", 6, 200}));
        EXPECT_EQ(world.log.count("More than 32 instances found! Terminating the enumeration"),
                  adapters > 33);
    }
}

struct PairingRequest : platform::DevicePairingRequestedEventArgs {
    explicit PairingRequest(std::uint32_t number) : kind(number) {}
    platform::DevicePairingKinds pairingKind() const override { return platform::DevicePairingKinds{kind}; }
    std::wstring pin() const override {
        pinRead = true;
        return L"123456";
    }
    void accept() override { answer += "accept"; }
    void acceptWithPin(const std::wstring& pin) override { answer += pin.empty() ? "empty pin" : "pin"; }

    std::uint32_t kind;
    std::string answer;
    mutable bool pinRead = false;
};

TEST(PairingRequest, AnsweredByKind) {
    const std::pair<std::uint32_t, const char*> cases[] = {
        {1, "accept"}, {2, "accept"}, {4, "empty pin"}, {8, "accept"}, {0, ""}, {3, ""}, {16, ""}};
    for (const auto& [kind, answer] : cases) {
        PairingRequest request(kind);
        onPairingRequested(request);
        EXPECT_EQ(request.answer, answer) << kind;
        EXPECT_EQ(request.pinRead, kind == 8) << kind;
    }
}

// Once per process, to the first adapter.
TEST(ScanTiming, IsSentAsTheDocumentSays) {
    expectRows("replies.md", "Scan timing", [](const Texts& cells) -> Texts {
        ShellWorld world(R"({"adapters": )" + cells[0] + "}");
        scanIntervalsConfigured = false;
        setScanIntervals();
        EXPECT_TRUE(waitForScanConfigThread(kDeadline));
        const Texts log = world.log.texts();
        EXPECT_EQ(setScanIntervals(), cells[0] != "[]");
        Texts commands;
        for (const auto& command : world.world().scanCommands.all())
            commands.push_back(joined({command.begin(), command.end()}));
        return {joined(commands, "<br>"), joined(world.sleeps.sleeps()), joined(log, "<br>")};
    });
}

const std::string kAgeWarning = "[WARNING] It is recommended to check for new Bluetooth ";
const std::string kKnownWarning = "[WARNING] Bluetooth driver ";

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

// The log of a check of these devices, and its warnings and errors.
std::pair<Texts, Texts> check(const std::string& devices) {
    static const DriversDb known = {{L"M#1.2.3.4", L"Get 2."}, {L"An Intel Co#1.2.3.4", L"Get 3."}};
    ShellWorld world(R"({"drivers": [)" + devices + "]}");
    checkBluetoothDrivers([]() -> const DriversDb& { return known; });
    return {world.log.texts(), world.log.troubles()};
}

std::ptrdiff_t countOf(const Texts& lines, std::string_view begin) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const auto& line) { return line.starts_with(begin); });
}

TEST(Drivers, AreWarnedOfAsTheDocumentSays) {
    expectRows("replies.md", "Drivers", [](const Texts& cells) -> Texts {
        const Texts log = check(device(driver(cells[0], cells[1]))).first;
        EXPECT_LE(countOf(log, "[WARNING]"), 1);
        return {countOf(log, kAgeWarning) > 0 ? "age" : countOf(log, kKnownWarning) > 0 ? "known" : ""};
    });
}

// Where the local time is not UTC, the date in the warning is shifted twice.
TEST(Drivers, ListingAndWarnings) {
    const auto dateText = [](platform::FileTime time) {
        return platform::toUtf8(platform::formatLongDateAndTime(platform::toCalendarTime(time)));
    };
    const auto once = platform::toLocalFileTime({131065776000000000});  // 2016-05-01 12:00
    const Texts texts = check(device(driver("2016-05-01"))).first;
    ASSERT_EQ(texts.size(), 7U);
    EXPECT_EQ(texts[4], "Driver date is " + dateText(once));
    EXPECT_EQ(texts[6], kAgeWarning + "\"M:P:" + dateText(platform::toLocalFileTime(once)) +
                            "\" driver version and update!");
    EXPECT_EQ(check(device(driver("2020-01-02"))).first.back(),
              kKnownWarning + "\"M:P\" may require an update! Get 2.");
}

TEST(Drivers, LaterDuplicatesLimitsAndFailures) {
    const std::string one = device(driver("2020-01-01", "N")), old = driver("2016-05-01");
    const std::tuple<std::string, int, int, Texts> cases[] = {
        {device(old + "," + old), 2, 1, {}},
        {device(old + "," + driver("2016-05-02", "m")), 2, 2, {}},
        {device(old + "," + driver("2020-05-01")), 2, 1, {}},
        {device(old) + "," + device(old), 2, 2, {}},
        {device(repeated(driver("2020-01-01", "N"), 40)) + "," + repeated(one, 39), 32 + 32, 0, {}},
        {one + R"(,{"build_error": 13},)" + one,
         1,
         0,
         {"ERROR: Driver check: SetupDiBuildDriverInfoList err - 13"}},
        {one + R"(,{"build_error": 256},)" + one, 1, 0, {}},
        // The next device has its turn.
        {R"({"end_error": 5},)" + one, 1, 0, {"WARNING: Driver check: SetupDiEnumDriverInfo err - 5"}},
        {R"(], "faults": [{"on": "drivers", "do": "error:0x80070005"})",
         0,
         0,
         {"ERROR: Driver check: SetupDiGetClassDevs failed: 5"}}};
    for (const auto& [devices, listed, warnings, failures] : cases) {
        auto [log, told] = check(devices);
        EXPECT_EQ(countOf(log, "---------------"), listed) << devices;
        EXPECT_EQ(countOf(log, "[WARNING]"), warnings) << devices;
        std::erase_if(told, [](const auto& line) { return line.starts_with("WARNING: [WARNING]"); });
        EXPECT_EQ(told, failures) << devices;
    }
}

TEST(DriversDb, Lines) {
    const std::string other =
                          "WARNING: Driver check: known.db has lines that are not UTF-8 and are not used: ",
                      advice = ". Save the file as UTF-8.";
    const std::tuple<std::string, DriversDb, Texts> cases[] = {
        {"", {}, {}},
        {"a,b", {{L"a#b", L""}}, {}},
        {"\n\na\n,b,c\na,,c\na,\r\n,\n", {}, {}},
        {" a , b , c ,d,e,f,g,h\n", {{L" a # b ", L" c "}}, {}},
        {"\xEF\xBB\xBFm,b,c\r\nd,e\r\n", {{L"m#b", L"c"}, {L"d#e", L""}}, {}},
        {"a,b,first\na,b,last\n", {{L"a#b", L"last"}}, {}},
        {"M\xC3\xBCller,1.0.0.0,\xC3\xBC\n", {{L"M\u00FCller#1.0.0.0", L"\u00FC"}}, {}},
        {{"\xFF\xFE\xFC\0,\0b\0\n\0d\0,\0e\0\n\0?", 19}, {{L"\u00FC#b", L""}, {L"d#e", L""}}, {}},
        {{"\xFE\xFF\0\xFC\0,\0b\0\r\0\n", 12}, {{L"\u00FC#b", L""}}, {}},
        {"M\xFCller,1,a\n", {}, {other + "1" + advice}},
        {"M\xFCller,1,a\na,b,c\nd,e,\xFC\n", {{L"a#b", L"c"}}, {other + "2" + advice}}};
    for (const auto& [text, records, told] : cases) {
        const LogCapture log;
        EXPECT_EQ(parseDriversDb(text, "known.db"), records) << text;
        EXPECT_EQ(log.troubles(), told) << text;
    }
}

TEST(DriversDb, FileMayBeMissing) {
    const TemporaryFolder folder;
    const auto file = folder.path() / "known.db";
    sim::WorldScope world(R"({"drivers_db": ")" + file.generic_string() + R"("})");
    EXPECT_TRUE(readDriversDb().empty());
    std::ofstream(file) << "a,b,c\n";
    EXPECT_EQ(readDriversDb(), (DriversDb{{L"a#b", L"c"}}));
}

}  // namespace
}  // namespace blescanner
