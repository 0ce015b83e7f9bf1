// A fixture with one running program and its client.
#pragma once

#include <gtest/gtest.h>

#include <random>

#include "tests/e2e/harness.h"
#include "tests/e2e/subject.h"

namespace e2e {

inline constexpr std::string_view kConnect = "connect 00:1A:7D:DA:71:13\n";
// Only the simulated program sleeps faster with it.
inline constexpr std::string_view kFast = R"({"time_scale": 50})";

inline std::string randomBytes(std::size_t count) {
    std::minstd_rand generator(7);
    std::string bytes(count, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator() >> 8);
    return bytes;
}

class Session : public testing::Test {
  protected:
    // Starts the program and becomes its command client.
    void start(std::string_view scenario = kFast, std::vector<std::string> arguments = {},
               StandardOutput output = StandardOutput::collected) {
        program = std::make_unique<Program>(folder.path(), scenario, std::move(arguments), output);
        ASSERT_TRUE(shell.open(commandPipe(folder.path()))) << program->output() << program->errors();
    }
    std::string command(std::string_view line) {
        shell.send(line);
        return shell.readUntil("\r\n");
    }
    void connect() {
        ASSERT_EQ(command(kConnect), "OK\r\n");
        ASSERT_EQ(shell.readUntil("\r\n"), "CONNECT TIO\r\n");
        ASSERT_TRUE(data.open(dataPipe(folder.path())));
    }
    void expectCleanEnd() {
        EXPECT_EQ(program->waitForExit(), 0) << program->output();
        EXPECT_NE(program->output().find("Goodbye!"), std::string::npos);
        EXPECT_FALSE(pipeExists(commandPipe(folder.path())));
        EXPECT_FALSE(pipeExists(dataPipe(folder.path())));
        EXPECT_NE(program->errors().find("violations 0"), std::string::npos) << program->errors();
        if (!hasRealBluetoothSide()) return;
        EXPECT_NE(program->errors().find("provider: live objects 0\n"), std::string::npos)
            << program->errors();
    }

    TemporaryFolder folder;
    std::unique_ptr<Program> program;
    PipeClient shell;
    PipeClient data;
};

}  // namespace e2e
