// The commands: what the client reads, what the log tells, what is waited for.
#include "blescanner/cmdpipe_commands.h"

#include "blescanner/byte_loss.h"
#include "blescanner/cmdpipe_notification.h"
#include "blescanner/waiting.h"
#include "tests/unit/shell_fixture.h"

namespace {

using namespace blescanner;
using namespace test;

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
    // What the client gets for these bytes, with <br> for each end of a line.
    std::string replies(std::string_view bytes) {
        EXPECT_EQ(dispatch(bytes), CommandResult::goOn);
        return repliesSoFar();
    }
    std::string repliesSoFar() {
        std::wstring end = L"#";
        shell.writeText(end);
        EXPECT_TRUE(end.empty());
        const std::string text = client.readUntil("#");
        return std::regex_replace(text.substr(0, text.size() - 1), std::regex("\r\n"), "<br>");
    }

    CNamedPipe shell;
    StopSignal stop;
    CommandSet commands{shell, stop};
    LineAccumulator line;
    PipeClient client;
};

TEST(Commands, AnswerByRadioAndAdapterAsTheDocumentSays) {
    expectRows("replies.md", "Answers", [](const Texts& cells) -> Texts {
        // Has a driver, so that a driver check would show in the log.
        Commands shell(R"({"peripherals": [], "drivers": [{"compatible": [{}]}], "radios": )" + cells[0] +
                       R"(, "adapters": )" + cells[1] + "}");
        const std::string stats = shell.replies("stats\n"), scan = shell.replies("lescan 1000\n");
        EXPECT_FALSE(shell.log.find("---------------"));
        return {stats.substr(stats.find(" V") + 1), scan, joined(shell.sleeps.sleeps()),
                joined(shell.log.troubles(), "<br>")};
    });
}

// Log readers look for these, the first one without the reply's "!".
TEST(Commands, TextsOfTheLog) {
    Commands shell;
    shell.commands.tellBluetoothUnusable(1);
    shell.commands.tellBluetoothUnusable(0);
    shell.commands.tellLowEnergyMissing();
    EXPECT_EQ(shell.log.texts(),
              (Texts{"SHELL: BLE DISABLED!\r\n", "BLE DISABLED\r\n", "SHELL: BLE NOT FOUND\r\n",
                     "BLE NOT FOUND\r\n", "SHELL: LE NOT SUPPORTED\r\n", "LE NOT SUPPORTED\r\n"}));
    std::wstring text = L"no\x1B end";
    shell.shell.writeText(text);
    EXPECT_EQ(shell.log.texts().back(), "SHELL: no\\x1b end");
}

TEST(Commands, ScanEndsWithItsClient) {
    Commands shell;
    platform::setTimeScale(1);
    std::thread leaving([&] {
        EXPECT_TRUE(eventually([&] { return shell.log.find("Start scanning..."); }));
        shell.client.close();
    });
    EXPECT_EQ(shell.dispatch("lescan 3600000\n"), CommandResult::goOn);
    leaving.join();
    EXPECT_TRUE(shell.log.find("SHELL PIPE ERR(W)= (109)"));
    shell.dispatch("lescan 3600000\n");
    EXPECT_EQ(shell.log.count("Start scanning..."), 1) << "nobody waits for the result";
}

TEST(Commands, AnswerLinesAsTheDocumentSays) {
    expectRows("replies.md", "Lines", [](const Texts& cells) -> Texts {
        std::string sent = cells[0];
        for (const auto& [shown, meant] : {std::pair{"\\\\n", "\n"}, {"\\\\r", "\r"}, {"\\\\t", "\t"}})
            sent = std::regex_replace(sent, std::regex(shown), meant);
        Commands shell(R"({"peripherals": []})");
        const CommandResult result = shell.dispatch(sent);
        const char* const next[] = {"goes on", "the client's session ends", "the program ends"};
        return {shell.repliesSoFar(), joined(shell.sleeps.sleeps()), next[-static_cast<int>(result)],
                joined(shell.log.troubles(), "<br>")};
    });
}

TEST(Commands, LinesInPiecesAndTooLongOnes) {
    constexpr std::size_t kLimit = 64 * 1024;
    const std::string ok = "disconnect";
    const std::tuple<Texts, std::string, Texts> cases[] = {
        {{"dis", "conn", "", "ect", "\ndisc", "onnect\n"}, "OK<br>OK<br>", {}},
        {{ok + std::string(kLimit - ok.size(), 'x') + "\n"}, "OK<br>", {}},
        {{ok + std::string(kLimit, 'x'), "\ndisconnect\n"},
         "OK<br>",
         {"ERROR: Unknown command: " + ok + std::string(256 - ok.size(), 'x') +
          "... (line longer than 64 KiB)"}}};
    for (const auto& [writes, replies, problems] : cases) {
        Commands shell;
        for (const std::string& bytes : writes)
            EXPECT_EQ(shell.dispatch(bytes), CommandResult::goOn);
        EXPECT_EQ(shell.repliesSoFar(), replies) << writes.front().substr(0, 80);
        EXPECT_EQ(shell.log.troubles(), problems);
    }
}

TEST(Commands, EachEndOfALinkClosesItsPipeOnce) {
    for (const std::string end : {"disconnect\n", "exit\n", "connect x\n"}) {
        SCOPED_TRACE(end);
        Commands shell;
        EXPECT_EQ(shell.replies(kConnect), "OK<br>");
        ASSERT_TRUE(eventually([&] { return shell.log.find("Starting communication loop..."); }));
        auto data = shell.openData();
        data.send("abc");
        EXPECT_EQ(data.readBytes(3), "abc");
        const std::regex stats("RX 3 bytes. TX 3 bytes. LC 39. RC 31. V.*;TIOCONNECTED<br>");
        EXPECT_TRUE(eventually([&] { return std::regex_match(shell.replies("stats\n"), stats); }));
        shell.control.calls();
        shell.control.flushed = false;
        shell.sleeps.clear();
        shell.dispatch(end);
        EXPECT_EQ(shell.sleeps.sleeps().at(0), 250);
        EXPECT_EQ(shell.control.calls(), (Texts{"data flush 250", "data close"}));
        EXPECT_TRUE(data.waitForClose());
        EXPECT_TRUE(shell.log.find("Data pipe: closed before the client had read all of it"));
        const bool again = end == "connect x\n";
        EXPECT_TRUE(again || waitForLinkSessions(kDeadline));
        EXPECT_TRUE(eventually([&] { return !shell.world().peripheral(0).connected(); }));
        shell.repliesSoFar();
        EXPECT_TRUE(shell.replies("stats\n").starts_with(again ? "RX 0 " : "RX 3 "));
        shell.commands.closeDataPipe();
        EXPECT_EQ(shell.control.calls().size(), again ? 2U : 0U);
    }
}

TEST(Commands, ConnectWithoutADataPipe) {
    Commands shell;
    settings().datPipeName = (TemporaryFolder().path() / "gone" / "data").wstring();
    EXPECT_EQ(shell.replies(kConnect), "OK<br>");
    EXPECT_TRUE(shell.log.troubles().at(0).starts_with("ERROR: Could not create comm pipe "));
}

TEST(Writes, AreGivenUpAfterATimeByLength) {
    Commands shell;
    shell.control.stalled = true;
    // The client reads nothing: some of these fill what the host buffers.
    while (shell.log.troubles().empty())
        shell.dispatch("disconnect\n");
    EXPECT_EQ(shell.control.calls(), (Texts{"shell wait 500"}));
    const std::regex problem("WARNING: Command pipe: [0-4] bytes of a reply given up");
    EXPECT_TRUE(std::regex_match(shell.log.troubles().front(), problem));

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
    std::wstring text = L"dropped";
    never.writeText(text);
    EXPECT_TRUE(!never.isOpen() && never.clientLeft() && never.flush(1ms));
    EXPECT_EQ(never.writeBytes(std::vector<std::uint8_t>(1)) + never.cancel(never.readRequest).bytes, 0U);
    never.disconnect();
    never.close();
}

TEST(LinkNotification, KeepsEveryLineInOrderWhileAClientIsThere) {
    LinkNotification notification;
    const auto taken = [&](bool isSet) {
        EXPECT_EQ(notification.event().isSet(), isSet);
        return notification.take();
    };
    EXPECT_FALSE(notification.post(L"lost"));
    for (const auto* second : {L"one", L"two"}) {
        notification.open();
        EXPECT_FALSE(taken(false));
        EXPECT_TRUE(notification.post(L"one") && notification.post(second));
        EXPECT_EQ(taken(true), L"one");
        EXPECT_EQ(taken(true), second);
        EXPECT_FALSE(taken(false));
        notification.post(L"stale");
        notification.close();
        EXPECT_FALSE(notification.post(L"lost"));
    }
}

TEST(ByteLoss, TellsTheFirstOneAtOnceAndALongRunOnceASecond) {
    LogCapture log;
    ByteLoss loss;
    loss.tellRest();
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
        told += std::stol(text.substr(text.find(':') + 1));
    EXPECT_EQ(told, 20 + 3 * 20'000);
    EXPECT_TRUE(eventually([&] {
        loss.add(1);
        return log.texts().size() > texts.size();
    })) << "a second later it is told by itself";
}

// A stop that notes when a wait calls while it takes long, and ends it then.
struct Impatient : StopSignal {
    void waitingLong() override {
        calls.push_back(std::chrono::steady_clock::now() - start);
        if (calls.size() == 2) throw Stopped();
    }
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::vector<std::chrono::nanoseconds> calls;
};

TEST(Waiting, CallsAfterASecondAndThenTenTimesASecond) {
    sim::WorldScope world(R"({"faults": [{"on": "radios", "do": "hang"}]})");
    SleepRecorder sleeps;
    bool inTime = false;
    // A loaded machine may make one call late, but not one in each try.
    for (int tries = 0; tries < 10 && !inTime; ++tries) {
        Impatient stop;
        EXPECT_THROW(awaitOperation(*requestRadioList(), stop), Stopped);
        EXPECT_TRUE(stop.calls.at(0) >= 1s && stop.calls.at(1) >= 1100ms);
        inTime = stop.calls[1] < 1900ms;
    }
    EXPECT_TRUE(inTime);
    EXPECT_EQ(sleeps.sleeps(), Sleeps{}) << "it only yields";
}

TEST(Waiting, TellsHowAnOperationFailed) {
    for (const std::string action : {"error:0xA7654321", "cancel"}) {
        sim::WorldScope world(R"({"faults": [{"on": "radios", "do": ")" + action + R"("}]})");
        LogCapture log;
        awaitOperation(*requestRadioList(), programEnd());
        const char* const problem =
            action == "cancel" ? "ERROR: Cancel on op: IAsyncOperation<IVectorView<Radio>>"
                               : "ERROR: Error on op: IAsyncOperation<IVectorView<Radio>> ( -1486535903: )";
        EXPECT_EQ(log.troubles(), Texts{problem});
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
    int status = 0;
    for (const char* text :
         {"0 (success)", "1 (unreachable)", "2 (protocol error)", "3 (access denied)", "4"})
        EXPECT_EQ(statusText(platform::GattCommunicationStatus(status++)), text);
}

}  // namespace
