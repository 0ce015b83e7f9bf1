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
    const std::string log = program->output();
    EXPECT_NE(log.find("Unknown command: quit now"), std::string::npos);
    EXPECT_NE(log.find("aaa... (line longer than 64 KiB)"), std::string::npos);
    EXPECT_LT(log.size(), 100'000U);

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

TEST_F(Session, EndsWhenAskedFromOutsideWhateverItIsDoing) {
    struct Case {
        const char* name;
        std::string_view lines;
        const char* awaited;  // in the log, before the program is asked
        bool interrupt;
        const char* scenario = "{}";
    };
    const Case cases[] = {
        {"idle", "", "Client: (", true},
        {"scanning for an hour", "lescan 3600000\n", "Start scanning...", false},
        {"connecting", kConnect, "Trigger a fake event...", false},
        {"waiting for an answer that never comes", kConnect, "Get device from address", false,
         R"({"peripherals": [{"faults": [{"on": "device", "do": "hang"}]}]})"},
        {"linked", kConnect, "Starting communication loop...", true},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.name);
        start(item.scenario);
        shell.send(item.lines);
        ASSERT_TRUE(program->waitForOutput(item.awaited));
        item.interrupt ? program->interrupt() : program->terminate();
        expectCleanEnd();
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
