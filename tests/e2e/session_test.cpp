// The real program, seen by its client.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "tests/e2e/session_fixture.h"

namespace {

using namespace e2e;

// Checks what "stats" says about the system. The simulated program takes it from the scenario; otherwise it
// is Wine's version, and there are no adapters.
void expectSystemText(const std::string& stats) {
    if (!hasRealBluetoothSide()) {
        EXPECT_NE(stats.find(" V10.0.19041;BLE ON;LE=Sim Adapter+9|;"), std::string::npos) << stats;
        return;
    }
    EXPECT_NE(stats.find(runsOnOlderSystem() ? " V6.3." : " V10.0."), std::string::npos) << stats;
    EXPECT_NE(stats.find(";BLE LE NOT SUPPORTED;LE NOT SUPPORTED;"), std::string::npos) << stats;
}

TEST_F(Session, ScansConnectsMovesBytesBothWaysAndEnds) {
    start();
    const std::string before = command("stats\r\n");
    EXPECT_TRUE(before.starts_with("RX 0 bytes. TX 0 bytes. LC 0. RC 0. V")) << before;
    EXPECT_TRUE(before.ends_with(";TIODISCONNECTED\r\n")) << before;
    expectSystemText(before);
    EXPECT_EQ(command("LESCAN 1000\n"), "00:1a:7d:da:71:13;TIO-SIM\r\n");
    connect();

    const std::string sent = randomBytes(200'000);
    std::thread writer([&] { EXPECT_TRUE(data.send(sent)); });
    const std::string received = data.readBytes(sent.size());
    writer.join();
    EXPECT_TRUE(received == sent);

    const std::string stats = command("stats\n");
    EXPECT_TRUE(stats.starts_with("RX 200000 bytes. TX 200000 bytes. LC ")) << stats;
    EXPECT_TRUE(stats.ends_with(";TIOCONNECTED\r\n")) << stats;
    EXPECT_EQ(command("disconnect\n"), "OK\r\n");
    EXPECT_TRUE(data.waitForClose());
    EXPECT_TRUE(program->waitForOutput("commThread is DONE!"));
    shell.send("exit\n");
    expectCleanEnd();
}

TEST_F(Session, AnswersOddLinesAsItShould) {
    start();
    // A scan that is too short, an unknown command and a line that is too long get no answer; the next
    // command does.
    shell.send("lescan 999\nlescan -1\nquit now\n");
    shell.send(std::string(200'000, 'a') + "\n");
    EXPECT_TRUE(command("stats\n").starts_with("RX 0"));
    EXPECT_TRUE(program->waitForOutput("Unknown command: quit now"));
    EXPECT_TRUE(program->waitForOutput("aaa... (line longer than 64 KiB)"));
    EXPECT_LT(program->output().size(), 100'000U);

    EXPECT_EQ(command("connect 00:1A:7D:DA:71\n"), "OK\r\n");
    EXPECT_EQ(shell.readUntil("\r\n"), "ERROR TIO\r\n");
    EXPECT_EQ(command("connect 00:1A:7D:DA:71:99\n"), "OK\r\n");
    EXPECT_EQ(shell.readUntil("\r\n"), "ERROR TIO\r\n");
    connect();
}

TEST_F(Session, ServesOneClientAfterAnother) {
    start();
    // On Linux the second client can open the pipe at once, on Windows it has to try again.
    PipeClient second;
    auto answer = std::async(std::launch::async, [&] {
        const bool sent = second.open(commandPipe(folder.path())) && second.send("stats\n");
        return sent ? second.readUntil("\r\n") : "not opened";
    });
    connect();
    EXPECT_EQ(answer.wait_for(100ms), std::future_status::timeout);
    shell.send("QUIT\n");
    EXPECT_TRUE(shell.waitForClose());
    shell.close();
    // The link goes on for the next client.
    EXPECT_TRUE(answer.get().ends_with(";TIOCONNECTED\r\n"));
    data.send("x");
    EXPECT_EQ(data.readBytes(1), "x");

    // A client that vanishes takes the link with it.
    second.close();
    EXPECT_TRUE(program->waitForOutput("Client disconnected!"));
    EXPECT_TRUE(data.waitForClose());
    ASSERT_TRUE(shell.open(commandPipe(folder.path())));
    connect();
}

TEST_F(Session, ADisconnectDuringTheRadioResetLeavesTheNextSessionAlone) {
    if (runsOnOlderSystem())
        GTEST_SKIP() << "a system without the newer calls cannot ask for an uncached list";
    // The first peripheral has no service, for which the program switches the radio off and on. The radio is
    // slow: it goes off only after the next session has begun.
    start(R"({"time_scale": 10, "radios": [{"switch_delay_ms": 3000}], "peripherals": [
        {"address": "00:00:00:00:00:01", "services": [], "cached_services": [], "uncached_services": []}, {}]})");
    EXPECT_EQ(command("connect 00:00:00:00:00:01\n"), "OK\r\n");
    ASSERT_TRUE(program->waitForOutput("Radio object going OFF"));
    EXPECT_EQ(command("disconnect\n"), "OK\r\n");
    connect();
    data.send("healthy");
    EXPECT_EQ(data.readBytes(7), "healthy");
}

TEST_F(Session, AScanEndsWhenItsClientLeaves) {
    start();
    shell.send("lescan 4294967295\nstats\n");
    ASSERT_TRUE(program->waitForOutput("Start scanning..."));
    shell.close();
    ASSERT_TRUE(program->waitForOutput("Client disconnected!"));
    ASSERT_TRUE(shell.open(commandPipe(folder.path())));
    EXPECT_TRUE(command("stats\n").starts_with("RX 0"));
}

TEST_F(Session, AHangingListOfRadiosHoldsNeitherExitNorTheNextClient) {
    if (hasRealBluetoothSide()) GTEST_SKIP() << "the provider knows no such fault";
    start(R"({"time_scale": 50, "faults": [{"on": "radios", "after": 1, "times": 2, "do": "hang"}]})");
    shell.send("stats\n");
    ASSERT_TRUE(program->waitForOutput("Retrieving list of radio devices...", 2));
    shell.close();
    ASSERT_TRUE(program->waitForOutput("Client disconnected!"));
    ASSERT_TRUE(shell.open(commandPipe(folder.path())));
    shell.send("stats\nexit\n");
    expectCleanEnd();
    EXPECT_NE(program->output().find("Exiting on terminate APP command"), std::string::npos);
}

TEST_F(Session, AClientGetsTheRepliesThatItDoesNotWaitFor) {
    for (const std::string_view last : {"quit\n", "exit\n"}) {
        start();
        shell.send("stats\ndisconnect\n" + std::string(last));
        EXPECT_TRUE(
            program->waitForOutput(last == "quit\n" ? "terminate shell command" : "Exiting on terminate"));
        EXPECT_TRUE(shell.readUntil("OK\r\n").starts_with("RX 0")) << last;
        EXPECT_TRUE(shell.waitForClose());
        shell.close();
        program.reset();
    }
}

TEST_F(Session, EndsWithinFiveSecondsOfBeingAskedWhateverItIsDoing) {
    struct Case {
        const char* name;
        std::string_view lines;
        const char* awaited;  // in the log, before the program is asked
        bool interrupt;
        const char* scenario = "{}";
        bool simulatedOnly = false;
    };
    const Case cases[] = {
        {"idle", "", "Client: (", true},
        {"scanning for an hour", "lescan 3600000\n", "Start scanning...", false},
        {"connecting", kConnect, "Trigger a fake event...", false},
        {"waiting for an answer that never comes", kConnect, "Get device from address", false,
         R"({"peripherals": [{"faults": [{"on": "device", "do": "hang"}]}]})"},
        {"linked", kConnect, "Starting communication loop...", true},
        {"the list of radios never comes", "stats\n", "SHELL INPUT: stats", false,
         R"({"faults": [{"on": "radios", "after": 1, "do": "hang"}]})", true},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.name);
        if (item.simulatedOnly && hasRealBluetoothSide()) continue;
        start(item.scenario);
        shell.send(item.lines);
        ASSERT_TRUE(program->waitForOutput(item.awaited));
        const auto asked = std::chrono::steady_clock::now();
        item.interrupt ? program->interrupt() : program->terminate();
        expectCleanEnd();
        EXPECT_LT(std::chrono::steady_clock::now() - asked, 5s);
        EXPECT_EQ(program->output().find("terminate APP command"), std::string::npos);
        shell.close();
    }
}

TEST_F(Session, SurvivesKillAndLeavesTheFirstInstanceAlone) {
    start();
    program->kill();
    shell.close();
    start();
    const TemporaryFolder other;
    Program second(other.path(), kFast,
                   {"-c", commandPipe(folder.path()).string(), "-d", dataPipe(folder.path()).string()});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_NE(second.output().find("Could not create a named pipe: "), std::string::npos);
    connect();
}

TEST_F(Session, TellsWhatItGivesUpForAStalledClient) {
    start(R"({"time_scale": 50, "peripherals": [{"serial": "source:0", "tx_mtu": 20}]})");
    connect();
    // The client reads the first bytes and then nothing more. A write of 20 bytes is given up after 1050 ms.
    EXPECT_EQ(data.readBytes(20).size(), 20U);
    EXPECT_TRUE(program->waitForOutput("bytes for the client given up"));
    EXPECT_EQ(command("disconnect\n"), "OK\r\n");
    EXPECT_TRUE(program->waitForOutput("commThread is DONE!"));
    connect();
    EXPECT_EQ(data.readBytes(20).size(), 20U);
}

TEST_F(Session, TellsTheClientThatTheLinkDropped) {
    start(
        R"({"time_scale": 50, "peripherals": [{"faults": [{"on": "write:RX", "after": 3, "times": 1, "do": "disconnect"}]}]})");
    connect();
    data.send(std::string(4 * 244, 'x'));
    std::string lines = shell.readUntil("TIO DROP\r\n");
    EXPECT_TRUE(lines.ends_with("TIO DROP\r\n")) << lines;
    EXPECT_TRUE(data.waitForClose());
    data.close();
    // Nothing of the old session is left, and the next one works.
    EXPECT_TRUE(program->waitForOutput("commThread is DONE!"));
    connect();
    data.send("again");
    EXPECT_EQ(data.readBytes(5), "again");
}

TEST_F(Session, IsNotHeldUpByALogThatNobodyReads) {
    start(kFast, {}, StandardOutput::notRead);
    for (int i = 0; i < 500; ++i)
        ASSERT_TRUE(command("stats\n").ends_with(";TIODISCONNECTED\r\n")) << i;
    connect();
    data.send("echo");
    EXPECT_EQ(data.readBytes(4), "echo");
    const auto asked = std::chrono::steady_clock::now();
    program->terminate();
    EXPECT_EQ(program->waitForExit(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 5s);
}

// Whoever chooses a name, or sends a command, must not be able to clear the screen of those who read the log,
// to forge a line of it or of a reply, or to cut one short.
TEST_F(Session, LetsNoControlCharacterThrough) {
    const std::string inScenario = R"("EVIL\u001b[2J\u0000\r\nFORGED\u009b\u007f")";
    const std::string inLog = R"(EVIL\x1b[2J\x00\x0d\x0aFORGED\x9b\x7f)";
    const std::string inReply = "EVIL [2J   FORGED  ";
    const std::string argument = "\x1b[2J\r\nFORGED\x7f";
    const std::string shownArgument = R"(\x1b[2J\x0d\x0aFORGED\x7f)";

    const std::string named = R"([{"name": )" + inScenario + "}]";
    const std::string driver = R"({"description": )" + inScenario + R"(, "manufacturer": )" + inScenario +
                               R"(, "provider": )" + inScenario + "}";
    start(R"({"time_scale": 50, "radios": )" + named + R"(, "adapters": )" + named + R"(, "peripherals": )" +
              named + R"(, "drivers": [{"compatible": [)" + driver + "]}]}",
          {"-c", commandPipe(folder.path()).string(), "-d", dataPipe(folder.path()).string() + argument,
           "stray" + argument, "--bogus" + argument, "--logfile=log" + argument});
    shell.send(std::string("evil\x1b[2J\0\x9b\x7f\nconnect \x1b\n", 22));
    EXPECT_EQ(shell.readUntil("\r\n"), "OK\r\n");
    EXPECT_EQ(shell.readUntil("\r\n"), "ERROR TIO\r\n");
    EXPECT_EQ(command("lescan 1000\n"), "00:1a:7d:da:71:13;" + inReply + "\r\n");
    const std::string stats = command("stats\n");
    shell.send("exit\n");
    EXPECT_EQ(program->waitForExit(), 0);

    std::vector<std::string> logged{"Radio object is " + inLog, "non_option_args: stray" + shownArgument,
                                    "unknown_options: --bogus" + shownArgument,
                                    "Using log file: log" + shownArgument,
                                    R"(Unknown command: evil\x1b[2j\x00\x9b\x7f)"};
    if (!hasRealBluetoothSide()) {
        EXPECT_NE(stats.find("LE=" + inReply + "+9"), std::string::npos) << stats;
        for (const char* title : {"Driver description ", "Driver manufacturer ", "Driver provider "})
            logged.push_back(title + inLog);
        logged.push_back("| " + inLog + " supports Bluetooth 5.0+");
    }
    const std::string output = program->output();
    for (const std::string& text : logged)
        EXPECT_NE(output.find(text + "\n"), std::string::npos) << text << "\n" << output;
    const std::string all = output + program->errors();
    for (const char* raw : {"\x1b", "\x7f", "\xC2\x9B", "\nFORGED"})
        EXPECT_EQ(all.find(raw), std::string::npos) << output;
    EXPECT_EQ(all.find('\0'), std::string::npos) << output;
}

TEST_F(Session, LeavesNothingBehindOverAThousandConnections) {
    start(R"({"time_scale": 1000})");
    Resources early;
    for (int cycle = 1; cycle <= ZIQBLE_CYCLES; ++cycle) {
        ASSERT_EQ(command(kConnect), "OK\r\n") << cycle;
        ASSERT_EQ(shell.readUntil("\r\n"), "CONNECT TIO\r\n") << cycle;
        ASSERT_TRUE(data.open(dataPipe(folder.path())));
        data.send("ping");
        ASSERT_EQ(data.readBytes(4), "ping");
        ASSERT_EQ(command("disconnect\n"), "OK\r\n") << cycle;
        data.close();
        if (cycle == ZIQBLE_CYCLES / 10) {
            ASSERT_TRUE(program->waitForOutput("commThread is DONE!", cycle));
            early = program->resources();
        }
    }
    ASSERT_TRUE(program->waitForOutput("commThread is DONE!", ZIQBLE_CYCLES));
    const auto settled = [&] {
        const Resources now = program->resources();
        return now.threads <= early.threads + kResourceNoise && now.handles <= early.handles + kResourceNoise;
    };
    for (int attempt = 0; attempt < 500 && !settled(); ++attempt)
        std::this_thread::sleep_for(10ms);
    const Resources late = program->resources();
    EXPECT_LE(late.threads, early.threads + kResourceNoise);
    EXPECT_LE(late.handles, early.handles + kResourceNoise);
#if !defined ZIQBLE_SANITIZED && !defined ZIQBLE_EMULATED
    EXPECT_LE(late.residentKiB, early.residentKiB + 512);
    EXPECT_LE(late.residentKiB, 20U * 1024);
#endif
    shell.send("exit\n");
    expectCleanEnd();
}

}  // namespace
