// The shell session: its start, its clients one after another, and its end.
#include <cstdio>
#include <future>

#include "blescanner/cmdpipe_notification.h"
#include "platform/runtime.h"
#include "tests/unit/shell_fixture.h"

namespace {

using namespace test;
using blescanner::linkNotification;

// A running session with its first client.
class Session : public ShellWorld {
  public:
    explicit Session(const std::string& scenario = "{}") : ShellWorld(scenario) { nextClient(); }
    ~Session() {
        if (thread_.joinable()) end();
    }

    std::string command(const std::string& line) {
        client.send(line);
        return client.readUntil("\r\n");
    }
    void nextClient() {
        client.close();
        client = openShell();
    }
    bool waitForLog(std::string_view text, int times = 1) {
        return eventually([&] { return log.count(text) >= times; });
    }
    // Without "exit", which would end this process's waits for good.
    void end() {
        control.connectFails = true;
        client.send("quit\n");
        join();
    }
    void join() { thread_.join(); }

    PipeClient client;

  private:
    std::thread thread_{blescanner::runShellSession};
};

void connectLink(Session& session, PipeClient& data) {
    ASSERT_EQ(session.command(kConnect), "OK\r\n");
    ASSERT_EQ(session.client.readUntil("\r\n"), "CONNECT TIO\r\n");
    data = session.openData();
    data.send("abc");
    EXPECT_EQ(data.readBytes(3), "abc");
    EXPECT_TRUE(session.waitForLog("SNT=3")) << "the bytes may be back before their write has ended";
}

TEST(Start, WithoutUsableBluetoothTellsWaitingClientsAndEndsAsTheDocumentSays) {
    expectRows("replies.md", "At the start", [](const Texts& cells) {
        // The first two cells differ with the client.
        const auto play = [&](bool waits) -> Texts {
            ShellWorld world("{" + cells[0] + R"(, "drivers": [{"compatible": [{}]}]})");
            PipeClient client;
            Sleeps sleeps;
            // Reads at once: Windows drops what a client has not read when the program ends.
            std::future<std::string> reading;
            const auto come = [&] {
                client = world.openShell();
                reading = std::async(std::launch::async, [&] { return client.readUntil("nothing more"); });
            };
            if (waits) world.onShellCreated = come;
            platform::setSleepObserver([&](std::chrono::milliseconds duration) {
                sleeps.push_back(duration.count());
                if (!waits && duration == 2000ms) come();
            });
            blescanner::runShellSession();
            const std::string lines = reading.get();
            EXPECT_TRUE(client.waitForClose());
            EXPECT_EQ(world.control.calls(), (Texts{"shell flush 5000", "shell disconnect"}));
            EXPECT_FALSE(world.hasPipes());
            return {std::regex_replace(lines, std::regex("\r\n"), "<br>"), joined(sleeps),
                    std::to_string(world.log.count("---------------")), joined(world.log.troubles(), "<br>")};
        };
        Texts outcome = play(false), early = play(true);
        EXPECT_TRUE(std::equal(outcome.begin() + 1, outcome.end(), early.begin() + 1));
        outcome.insert(outcome.begin(), early[0]);
        return outcome;
    });
}

TEST(Start, SwitchesASingleRadioOnAndServes) {
    const std::tuple<std::string, std::vector<platform::RadioState>, int> cases[] = {
        {R"("radios": [{"state": "Off"}])", {platform::RadioState::on}, 2},
        {R"("radios": null)", {}, 0},
        {R"("adapters": [])", {}, 1}};
    for (const auto& [scenario, requests, driverChecks] : cases) {
        Session session("{" + scenario + R"(, "drivers": [{"compatible": [{}]}]})");
        EXPECT_EQ(session.command("disconnect\n"), "OK\r\n");
        EXPECT_EQ(session.world().radioRequests.all(), requests);
        EXPECT_EQ(session.log.count("---------------"), driverChecks) << scenario;
    }
}

TEST(Start, EndsWithoutAPipe) {
    ShellWorld world("{}");
    blescanner::settings().cmdPipeName = (TemporaryFolder().path() / "gone" / "shell").wstring();
    blescanner::runShellSession();
    const std::regex problems("ERROR: Could not create a named pipe: .*<br>ERROR: System error .*");
    EXPECT_TRUE(std::regex_match(joined(world.log.troubles(), "<br>"), problems));
    EXPECT_FALSE(world.log.find("Checking BLE availability"));
}

TEST(Clients, EachEndOfAClient) {
    const std::string gone = "ERROR: Client disconnected!", failed = "ERROR: SHELL PIPE ERR(R)= (5)";
    const std::pair<std::string, Texts> cases[] = {
        {"quit", {}},
        {"leaves", {gone}},
        {"leaves a line", {gone}},
        {"reads fail", {failed, failed, failed, failed, failed, gone}}};
    for (const auto& [end, problems] : cases) {
        SCOPED_TRACE(end);
        const bool linkGoesOn = end == "quit";
        Session session;
        PipeClient data;
        connectLink(session, data);
        session.control.calls();
        session.control.flushed = false;
        session.sleeps.clear();
        if (end == "quit") session.client.send("quit\n");
        if (end == "leaves a line") session.client.send("qu");
        if (end.starts_with("leaves")) session.client.close();
        for (const int times : {2, 3}) {
            if (end != "reads fail") break;
            session.control.failingReads = times;
            EXPECT_TRUE(session.command("stats\n").ends_with(";TIOCONNECTED\r\n"));
            EXPECT_TRUE(session.waitForLog("SHELL PIPE ERR(R)", times == 2 ? 2 : 5));
        }
        EXPECT_TRUE(session.waitForLog("  Disconnecting "));
        session.control.flushed = true;
        Texts calls = {"data flush 250", "data close", "shell flush 5000", "shell disconnect"};
        if (linkGoesOn) calls.erase(calls.begin(), calls.begin() + 2);
        EXPECT_EQ(session.control.calls(), calls);
        EXPECT_EQ(session.sleeps.sleeps(), Sleeps(linkGoesOn ? 0 : 1, 250));
        data.send("d");
        EXPECT_TRUE(linkGoesOn ? data.readBytes(1) == "d" : data.waitForClose());
        session.nextClient();
        EXPECT_TRUE(session.command("it\nstats\n")
                        .ends_with(linkGoesOn ? ";TIOCONNECTED\r\n" : ";TIODISCONNECTED\r\n"));
        Texts told = session.log.troubles();
        std::erase_if(told, [&](const auto& problem) { return problem != gone && problem != failed; });
        EXPECT_EQ(told, problems);
        EXPECT_EQ(session.log.count("Command pipe: closed before the client had read all of it"), 1);
    }
}

TEST(Clients, AnErrorOfACommandEndsTheClientNotTheSession) {
    Session session(R"({"faults": [{"on": "radios", "after": 1, "times": 1, "do": "throw:0xA7654321"}]})");
    session.client.send("stats\ndisconnect\n");
    EXPECT_TRUE(session.client.waitForClose());
    EXPECT_EQ(session.log.troubles(), Texts{"ERROR: HRESULT 0xA7654321 HRESULT: -1486535903"});
    session.nextClient();
    EXPECT_TRUE(session.command("stats\n").starts_with("RX "));
    EXPECT_EQ(session.log.count("SHELL INPUT: disconnect"), 0) << "its other commands go with it";
    session.end();
    EXPECT_EQ(session.log.troubles().back(), "ERROR: Failed in call to CNamedPipe::ConnectClient, Error: 5");
    EXPECT_TRUE(session.log.find("Done."));
}

TEST(Clients, ACommandThatHangs) {
    for (const bool leaves : {true, false}) {
        Session session(R"({"faults": [{"on": "radios", "after": 1, "times": 1, "do": "hang"}]})");
        session.client.send(leaves ? "stats\ndisconnect\n" : "stats\n");
        ASSERT_TRUE(session.waitForLog("Retrieving list of radio devices...", 2));
        if (leaves) {
            session.client.close();
            ASSERT_TRUE(session.waitForLog("Client disconnected!"));
        } else {
            // The wait reads ahead, until the command ends with an error.
            ASSERT_TRUE(eventually(
                [&, reads = int(session.control.reads)] { return session.control.reads > reads; }));
            session.world().runtime()->end();
            EXPECT_TRUE(session.client.waitForClose());
        }
        session.nextClient();
        EXPECT_TRUE(!leaves || session.command("stats\n").starts_with("RX "));
        EXPECT_FALSE(session.log.find("SHELL INPUT: disconnect"));
        EXPECT_EQ(session.command("disconnect\n"), "OK\r\n") << "it does not inherit the read";
    }
}

TEST(LinkLines, ArriveWholeAndOnlyForAClient) {
    Session session;
    ASSERT_EQ(session.command("disconnect\n"), "OK\r\n");
    linkNotification().post(L"STATUS CLOSED\r\n");
    linkNotification().post(L"STATUS CLOSED\r\n");
    EXPECT_EQ(session.client.readBytes(30), "STATUS CLOSED\r\nSTATUS CLOSED\r\n");
    PipeClient data;
    connectLink(session, data);
    session.control.calls();
    session.world().peripheral(0).dropLink();
    data.send("x");
    EXPECT_TRUE(session.client.readUntil("TIO DROP\r\n").ends_with("TIO DROP\r\n"));
    EXPECT_TRUE(data.waitForClose());
    EXPECT_EQ(session.control.calls(), (Texts{"data flush 250", "data close"}));
    EXPECT_EQ(session.command("disconnect\n"), "OK\r\n") << "once";

    session.client.send("quit\n");
    ASSERT_TRUE(session.client.waitForClose());
    EXPECT_TRUE(eventually([] { return !linkNotification().post(L"late\r\n"); }));
    session.nextClient();
    EXPECT_EQ(session.command("disconnect\n"), "OK\r\n");
}

TEST(Clients, OddEndsOfTheDataPipe) {
    Session session;
    session.control.dataThrows = true;
    EXPECT_EQ(session.command(kConnect), "OK\r\n");
    EXPECT_EQ(session.client.readUntil("\r\n"), "ERROR EXP\r\n");
    EXPECT_TRUE(session.waitForLog("commThread TERM (unknown exception) !"));
    EXPECT_EQ(joined(session.log.troubles(), "<br>"),
              "ERROR: odd pipe<br>ERROR: commThread TERM (unknown exception) !");
    session.control.dataThrows = false;

    PipeClient data;
    connectLink(session, data);
    session.control.dataTakes = 30;
    session.world().peripheral(0).sendNotification(sim::CharacteristicKind::tx,
                                                   std::vector<std::uint8_t>(100));
    EXPECT_TRUE(session.waitForLog("Data pipe: 70 bytes for the client given up"));
    session.sleeps.clear();
    data.close();
    EXPECT_TRUE(eventually([&] { return session.sleeps.sleeps() >= Sleeps(4, 100); })) << "the link stays";
    EXPECT_TRUE(session.command("stats\n").ends_with(";TIOCONNECTED\r\n"));
}

TEST(Clients, AreToldOfADataWriteThatThrows) {
    Session session(R"({"peripherals": [{"faults": [
        {"on": "write:RX", "after": 1, "times": 1, "do": "no-operation"}]}]})");
    PipeClient data;
    connectLink(session, data);
    data.send("never sent");
    EXPECT_EQ(session.client.readUntil("\r\n"), "ERROR EXP\r\n");
    EXPECT_TRUE(session.waitForLog("No operation came back for a data write"));
    EXPECT_TRUE(session.command("stats\n").starts_with("RX 3 bytes. TX 3 bytes."));
}

// GoogleTest prints what such a process writes to its standard error, but not its failures.
[[noreturn]] void endTestProcess() {
    const auto& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int part = 0; part < result.total_part_count(); ++part)
        std::fprintf(stderr, "%s\n", result.GetTestPartResult(part).message());
    platform::endProcess(result.Failed() ? 1 : 0);
}

// The program's end is for good, so each of these plays in a process of its own.
TEST(ProgramEnd, LeavesNothingOpenAndKeepsItsReplies) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string exits = "Exiting on terminate APP command",
                      stops = "The program has been asked to stop";
    const std::tuple<std::string, std::string, std::string, Sleeps> cases[] = {
        {"exit\nstats\n", "", exits, {250, 250}},
        // The list of radios hangs when it is asked for the third time: behind the start and the reset.
        {"disconnect\nresetbt\nstats\nEXIT\n",
         "OK\r\nOK\r\n",
         exits,
         {250, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1000}},
        {"", "", stops, {}},
        {"quit\n", "", stops, {}}};
    for (const auto& [commands, reply, logged, sleeps] : cases) {
        const auto play = [&] {
            Session session(R"({"faults": [{"on": "radios", "after": 2, "times": 1, "do": "hang"}]})");
            PipeClient data;
            connectLink(session, data);
            session.sleeps.clear();
            session.client.send(commands);
            EXPECT_TRUE(commands != "quit\n" || session.waitForLog("Waiting for a client", 2));
            if (logged == stops) platform::requestStop();
            // Read before the end, for the same reason.
            EXPECT_EQ(session.client.readUntil("nothing more"), reply);
            EXPECT_TRUE(session.client.waitForClose());
            session.join();
            EXPECT_TRUE(data.waitForClose());
            EXPECT_TRUE(session.log.find(logged));
            EXPECT_EQ(session.sleeps.sleeps(), sleeps);
            EXPECT_EQ(session.log.count("Client disconnected!") + session.log.count("ConnectClient"), 0);
            EXPECT_TRUE(eventually([&] { return !session.world().peripheral(0).connected(); }));
            EXPECT_FALSE(session.hasPipes());
            EXPECT_TRUE(platform::isStopRequested());
        };
        SCOPED_TRACE(commands);
        EXPECT_EXIT((play(), endTestProcess()), testing::ExitedWithCode(0), "");
    }
}

}  // namespace
