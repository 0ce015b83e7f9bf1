// The commands: what the client reads, what the log tells, what is waited for.
#include "blescanner/cmdpipe_commands.h"

#include "blescanner/byte_loss.h"
#include "blescanner/cmdpipe_notification.h"
#include "blescanner/waiting.h"
#include "tests/unit/shell_fixture.h"

namespace {

using namespace blescanner;
using test::ShellWorld;
using test::Texts;
using Sleeps = std::vector<long long>;

// A command set with its client.
class Commands : public ShellWorld {
  public:
    explicit Commands(const std::string& scenario = "{}") : ShellWorld(scenario) {
        EXPECT_EQ(shell.create(settings().cmdPipeName), platform::SystemError::none);
        client = openShell();
        EXPECT_EQ(shell.connect(), platform::SystemError::none);
    }
    ~Commands() { commands.closeSession(); }

    CommandResult dispatch(std::string_view bytes) {
        return commands.dispatch({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, line);
    }
    // What the client gets for these bytes, without the ends of lines.
    std::string replies(std::string_view bytes) {
        EXPECT_EQ(dispatch(bytes), CommandResult::goOn);
        return repliesSoFar();
    }
    std::string repliesSoFar() {
        shell.writeText(L"#");
        std::string text = client.readUntil("#");
        for (std::size_t end = 0; (end = text.find("\r\n")) != std::string::npos;)
            text.replace(end, 2, "/");
        return text.substr(0, text.size() - 1);
    }

    CNamedPipe shell;
    StopSignal stop;
    CommandSet commands{shell, stop};
    LineAccumulator line;
    test::PipeClient client;
};

const std::string kOn = R"({"state": "On"})", kOff = R"({"state": "Off"})",
                  kDisabled = R"({"state": "Disabled"})";
const std::string kOld = R"({"name": "Old\r\u009b", "lmp": 5})", kMute = R"({"version_error": 31})";
const Texts kNoLe = {std::string("WARNING: ") + kNoLowEnergy};

// Has a driver, so that a driver check would show in the log.
std::string scenario(const std::string& radios, const std::string& adapters) {
    return R"({"radios": )" + radios + R"(, "adapters": )" + adapters +
           R"(, "peripherals": [], "drivers": [{"compatible": [{}]}]})";
}

TEST(CommandsByRadioAndAdapter, StatsAndScan) {
    const std::string one = R"([{"name": "A", "lmp": 6}])";
    const std::tuple<std::string, std::string, std::string, std::string, Texts> cases[] = {
        {"[" + kOn + "]", one, ";BLE ON;LE=A+6|", "N/A/", {}},
        {"[" + kOff + "," + kOn + "]", one, ";BLE ON;LE=A+6|", "N/A/", {}},
        {"[]", one, ";BLE N/A", "BLE NOT FOUND/", {}},
        {"[" + kOff + "]", one, ";BLE N/A", "BLE DISABLED!/", {}},
        {"[" + kDisabled + "]", one, ";BLE N/A", "BLE DISABLED!/", {}},
        {"[" + kOff + "," + kOff + "]", one, ";BLE N/A", "BLE DISABLED!/", {}},
        {R"([{"kind": "WiFi"}])", one, ";BLE N/A", "BLE NOT FOUND/", {}},
        {"null", one, ";BLE OFF;LE=A+6|", "N/A/", {}},
        {"[" + kOn + "]", "[]", ";BLE LE NOT SUPPORTED;LE NOT SUPPORTED", "N/A/", {}},
        {"[" + kOn + "]", "[" + kOld + "]", ";BLE LE NOT SUPPORTED;LE=Old  +5|;LE NOT SUPPORTED",
         "LE NOT SUPPORTED/N/A/", kNoLe},
        {"[" + kOn + "]", "[" + kMute + "]", ";BLE LE NOT SUPPORTED;LE=;LE NOT SUPPORTED",
         "LE NOT SUPPORTED/N/A/", kNoLe},
        {"[" + kOn + "]", "[{}, " + kOld + "]", ";BLE ON;LE=Sim Adapter+9|Old  +5|", "N/A/", {}},
    };
    for (const auto& [radios, adapters, stats, scan, problems] : cases) {
        SCOPED_TRACE(radios + adapters);
        Commands shell(scenario(radios, adapters));
        const std::string answer = shell.replies("stats\n");
        EXPECT_EQ(answer.substr(answer.find(" V")), " V10.0.19041" + stats + ";TIODISCONNECTED/");
        const auto before = shell.log.troubles().size();
        EXPECT_EQ(shell.replies("lescan 1000\n"), scan);
        for (const std::string& problem : problems) {
            const auto all = shell.log.troubles();
            EXPECT_EQ(std::count(all.begin() + static_cast<long>(before), all.end(), problem), 1) << problem;
        }
        EXPECT_EQ(shell.log.count(kNoLowEnergy), static_cast<long>(problems.size()));
        EXPECT_EQ(shell.log.count("---------------"), 0) << "no driver check";
        const bool scans = scan.ends_with("N/A/");
        EXPECT_EQ(shell.sleeps.sleeps(), scans ? (Sleeps{500, 1000, 200}) : Sleeps{});
    }
}

// Log readers look for these, the first one without the reply's "!".
TEST(CommandsByRadioAndAdapter, TextsOfTheLog) {
    Commands shell;
    shell.commands.tellBluetoothUnusable(1);
    shell.commands.tellBluetoothUnusable(0);
    shell.commands.tellLowEnergyMissing();
    EXPECT_EQ(shell.log.texts(),
              (Texts{"SHELL: BLE DISABLED!\r\n", "BLE DISABLED\r\n", "SHELL: BLE NOT FOUND\r\n",
                     "BLE NOT FOUND\r\n", "SHELL: LE NOT SUPPORTED\r\n", "LE NOT SUPPORTED\r\n"}));
    shell.shell.writeText(L"no\x1B end");
    EXPECT_EQ(shell.log.texts().back(), "SHELL: no\\x1b end");
}

TEST(Commands, ScanTime) {
    const std::tuple<const char*, int> cases[] = {
        {"lescan", 0},
        {"lescan 999", 0},
        {"lescan 1000", 1000},
        {"lescan -1", 0},
        {"lescan - 2", 0},
        {"lescan abc", 0},
        {"lescan 4294967296", 0},
        {"lescan\t1500", 1500},
        {"LESCANS 2000 x", 2000},
    };
    for (const auto& [command, duration] : cases) {
        Commands shell(R"({"peripherals": []})");
        EXPECT_EQ(shell.replies(std::string(command) + "\n"), duration > 0 ? "N/A/" : "") << command;
        EXPECT_EQ(shell.sleeps.sleeps(), duration > 0 ? (Sleeps{500, duration, 200}) : Sleeps{}) << command;
    }
}

TEST(Commands, ScanEndsWithItsClient) {
    Commands shell;
    platform::setTimeScale(1);
    std::thread leaving([&] {
        EXPECT_TRUE(test::eventually([&] { return shell.log.find("Start scanning..."); }));
        shell.client.close();
    });
    EXPECT_EQ(shell.dispatch("lescan 3600000\n"), CommandResult::goOn);
    leaving.join();
    EXPECT_TRUE(shell.log.find("SHELL PIPE ERR(W)= (109)"));
    shell.dispatch("lescan 3600000\n");
    EXPECT_EQ(shell.log.count("Start scanning..."), 1) << "nobody waits for the result";
}

TEST(Commands, Lines) {
    constexpr std::size_t kLimit = 64 * 1024;
    const std::string ok = "disconnect";
    const auto unknown = [](const std::string& text) { return "ERROR: Unknown command: " + text; };
    const std::tuple<Texts, std::string, Texts> cases[] = {
        {{"DisConnect\n"}, "OK/", {}},
        {{"disconnect\r\n"}, "OK/", {unknown("")}},
        {{"disconnect\rdisconnected\n\r"}, "OK/OK/", {unknown("")}},
        {{"dis", "conn", "", "ect", "\ndisc", "onnect\n"}, "OK/OK/", {}},
        {{"disconnect"}, "", {}},
        {{" disconnect\nQuit now\nexit \nEVIL\x1b[2J\n"},
         "",
         {unknown(" disconnect"), unknown("quit now"), unknown("exit "), unknown("evil\\x1b[2j")}},
        {{ok + std::string(kLimit - ok.size(), 'x') + "\n"}, "OK/", {}},
        {{ok + std::string(kLimit, 'x'), "\ndisconnect\n"},
         "OK/",
         {unknown(ok + std::string(256 - ok.size(), 'x') + "... (line longer than 64 KiB)")}},
    };
    for (const auto& [writes, replies, problems] : cases) {
        Commands shell;
        for (const std::string& bytes : writes)
            EXPECT_EQ(shell.dispatch(bytes), CommandResult::goOn);
        EXPECT_EQ(shell.repliesSoFar(), replies) << writes.front().substr(0, 80);
        EXPECT_EQ(shell.log.troubles(), problems);
    }
}

TEST(Commands, Ends) {
    Commands shell;
    EXPECT_EQ(shell.dispatch("QUIT\ndisconnect\n"), CommandResult::clientQuits);
    EXPECT_EQ(shell.sleeps.sleeps(), Sleeps{});
    EXPECT_EQ(shell.dispatch("Exit\rdisconnect\n"), CommandResult::programEnds);
    EXPECT_EQ(shell.sleeps.sleeps(), (Sleeps{250, 250}));
    EXPECT_EQ(shell.repliesSoFar(), "") << "nothing behind the command that ends the session";
}

TEST(Commands, ResetSwitchesTheRadioOffAndOn) {
    Commands shell;
    EXPECT_EQ(shell.replies("resetbt\n"), "OK/");
    EXPECT_EQ(shell.world().radioRequests(),
              (std::vector{platform::RadioState::off, platform::RadioState::on}));
}

TEST(Commands, EachEndOfALinkClosesItsPipeOnce) {
    for (const char* end : {"disconnect\n", "exit\n", "connect x\n"}) {
        SCOPED_TRACE(end);
        Commands shell;
        EXPECT_EQ(shell.replies("connect 00:1A:7D:DA:71:13\n"), "OK/");
        ASSERT_TRUE(test::eventually([&] { return shell.log.find("Starting communication loop..."); }));
        auto data = shell.openData();
        data.send("abc");
        EXPECT_EQ(data.readBytes(3), "abc");
        EXPECT_TRUE(test::eventually(
            [&] { return shell.replies("stats\n").starts_with("RX 3 bytes. TX 3 bytes."); }));
        const std::string stats = shell.replies("stats\n");
        EXPECT_TRUE(stats.starts_with("RX 3 bytes. TX 3 bytes. LC 39. RC 31. V")) << stats;
        EXPECT_TRUE(stats.ends_with(";TIOCONNECTED/")) << stats;
        shell.control.calls();
        shell.control.flushed = false;
        const std::size_t slept = shell.sleeps.sleeps().size();
        shell.dispatch(end);
        EXPECT_EQ(shell.sleeps.sleeps().at(slept), 250);
        EXPECT_EQ(shell.control.calls(), (Texts{"data flush 250", "data close"}));
        EXPECT_TRUE(data.waitForClose());
        EXPECT_TRUE(shell.log.find("Data pipe: closed before the client had read all of it"));
        const bool again = end == std::string_view("connect x\n");
        EXPECT_TRUE(again || waitForLinkSessions(test::kDeadline));
        EXPECT_TRUE(test::eventually([&] { return !shell.world().peripheral(0).connected(); }));
        shell.repliesSoFar();
        EXPECT_TRUE(shell.replies("stats\n").starts_with(again ? "RX 0 " : "RX 3 "));
        shell.commands.closeDataPipe();
        EXPECT_EQ(shell.control.calls().size(), again ? 2U : 0U);
    }
}

TEST(Commands, ConnectWithoutADataPipe) {
    Commands shell;
    settings().datPipeName = (test::TemporaryFolder().path() / "gone" / "data").wstring();
    EXPECT_EQ(shell.replies("connect 00:1A:7D:DA:71:13\n"), "OK/");
    const auto problems = shell.log.troubles();
    ASSERT_FALSE(problems.empty());
    EXPECT_TRUE(problems[0].starts_with("ERROR: Could not create comm pipe ")) << problems[0];
}

TEST(Writes, AreGivenUpAfterATimeByLength) {
    Commands shell;
    shell.control.stalled = true;
    // The client reads nothing: some of these fill what the host buffers.
    while (shell.log.troubles().empty())
        shell.dispatch("disconnect\n");
    EXPECT_EQ(shell.control.calls(), (Texts{"shell wait 500"}));
    const std::string problem = shell.log.troubles().front();
    EXPECT_TRUE(problem.starts_with("WARNING: Command pipe: ") &&
                problem.ends_with(" bytes of a reply given up"))
        << problem;
    EXPECT_LE(std::stol(problem.substr(std::string("WARNING: Command pipe: ").size())), 4);

    const auto data = createDataPipe();
    auto reader = shell.openData();
    EXPECT_EQ(data->connect(), platform::SystemError::none);
    const std::vector<std::uint8_t> block(1'000'000);
    const std::size_t taken = data->writeBytes(block);
    EXPECT_EQ(shell.control.calls(), (Texts{"data wait 50000050"}));
    EXPECT_EQ(reader.readBytes(taken).size(), taken);
    EXPECT_EQ(data->writeBytes(std::vector<std::uint8_t>(20)), 20U);
    EXPECT_EQ(shell.log.count("ERR(W)="), 0) << "given up is no error";
    reader.close();
    EXPECT_EQ(data->writeBytes(std::vector<std::uint8_t>(20)), 0U);
    EXPECT_TRUE(shell.log.find("ERR(W)= (109). Read 20"));
}

TEST(Writes, WithoutAPipeGoNowhere) {
    CNamedPipe never;
    EXPECT_FALSE(never.isOpen());
    never.writeText(L"dropped");
    EXPECT_EQ(never.writeBytes(std::vector<std::uint8_t>(1)), 0U);
    EXPECT_TRUE(never.flush(std::chrono::milliseconds(1)));
    EXPECT_TRUE(never.clientLeft());
    EXPECT_EQ(never.cancel(never.readRequest).bytes, 0U);
    never.disconnect();
    never.close();
}

TEST(LinkNotification, KeepsEveryLineInOrderWhileAClientIsThere) {
    LinkNotification notification;
    EXPECT_FALSE(notification.post(L"lost"));
    notification.open();
    EXPECT_FALSE(notification.event().isSet());
    EXPECT_TRUE(notification.post(L"one"));
    EXPECT_TRUE(notification.post(L"one"));
    EXPECT_EQ(notification.take(), L"one");
    EXPECT_TRUE(notification.event().isSet());
    EXPECT_EQ(notification.take(), L"one");
    EXPECT_FALSE(notification.event().isSet());
    EXPECT_FALSE(notification.take());
    notification.post(L"stale");
    notification.close();
    EXPECT_FALSE(notification.post(L"lost"));
    notification.open();
    EXPECT_FALSE(notification.event().isSet());
    EXPECT_FALSE(notification.take());
}

TEST(ByteLoss, TellsTheFirstOneAtOnceAndALongRunOnceASecond) {
    test::LogCapture log;
    ByteLoss loss;
    loss.tellRest();
    EXPECT_EQ(log.troubles(), Texts{});
    loss.add(20);
    EXPECT_EQ(log.troubles(), Texts{"WARNING: Data pipe: 20 bytes for the client given up"});
    const auto start = std::chrono::steady_clock::now();
    for (int packet = 0; packet < 20'000; ++packet)
        loss.add(3);
    loss.tellDue();
    loss.tellRest();
    loss.tellRest();
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    const auto texts = log.texts();
    EXPECT_LE(texts.size(), 2U + static_cast<std::size_t>(seconds.count()));
    long told = 0;
    for (const std::string& text : texts)
        told += std::stol(text.substr(std::string("Data pipe: ").size()));
    EXPECT_EQ(told, 20 + 3 * 20'000);
    EXPECT_TRUE(test::eventually([&] {
        loss.add(1);
        return log.texts().size() > texts.size();
    })) << "a second later it is told by itself";
}

// A stop that counts how often a wait calls while it takes long, and ends it then.
struct Impatient : StopSignal {
    void waitingLong() override {
        calls.push_back(std::chrono::steady_clock::now());
        if (calls.size() == 3) throw Stopped();
    }
    std::vector<std::chrono::steady_clock::time_point> calls;
};

TEST(Waiting, CallsAfterASecondAndThenTenTimesASecond) {
    using namespace std::chrono_literals;
    sim::WorldScope world(R"({"faults": [{"on": "radios", "do": "hang"}]})");
    test::SleepRecorder sleeps;
    Impatient stop;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(awaitOperation(*requestRadioList(), stop), Stopped);
    const auto first = stop.calls.at(0) - start, rest = stop.calls.at(2) - stop.calls.at(0);
    EXPECT_TRUE(first >= 1s && first < 5s) << first.count();
    EXPECT_TRUE(rest >= 199ms && rest < 2s) << rest.count();
    EXPECT_EQ(sleeps.sleeps(), Sleeps{}) << "it only yields";
}

TEST(Waiting, TellsHowAnOperationFailed) {
    const std::pair<const char*, const char*> cases[] = {{"error:0x80070005", "ERROR: Error on op: "},
                                                         {"cancel", "ERROR: Cancel on op: "}};
    for (const auto& [action, problem] : cases) {
        sim::WorldScope world(R"({"faults": [{"on": "radios", "do": ")" + std::string(action) + R"("}]})");
        test::LogCapture log;
        awaitOperation(*requestRadioList(), programEnd());
        ASSERT_EQ(log.troubles().size(), 1U) << action;
        EXPECT_TRUE(log.troubles()[0].starts_with(problem)) << log.troubles()[0];
    }
    StopSignal stopped;
    EXPECT_FALSE(stopped.stopped());
    stopped.stop();
    EXPECT_TRUE(stopped.stopped());
    EXPECT_THROW(stopped.sleep(std::chrono::hours(1)), Stopped);
    sim::WorldScope world("{}");
    EXPECT_THROW(awaitOperation(*requestRadioList(), stopped), Stopped);
}

TEST(Waiting, NamesOfAStatus) {
    const char* const texts[] = {"0 (success)", "1 (unreachable)", "2 (protocol error)", "3 (access denied)",
                                 "4"};
    for (int status = 0; status < 5; ++status)
        EXPECT_EQ(statusText(platform::GattCommunicationStatus(status)), texts[status]);
}

}  // namespace
