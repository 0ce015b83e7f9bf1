// What the program logs at its start, and how it ends when it cannot serve a client.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/e2e/harness.h"
#include "tests/e2e/subject.h"

namespace {

using namespace e2e;

class Startup : public testing::Test {
  protected:
    std::vector<std::string> pipes() const {
        return {"--cmdPipe", commandPipe(folder.path()).string(), "--datPipe",
                dataPipe(folder.path()).string()};
    }
    TemporaryFolder folder;
};

TEST_F(Startup, RefusesABadScenarioBeforeAnyPipeExists) {
    if (hasRealBluetoothSide()) GTEST_SKIP() << "the program knows nothing of scenarios";
    Program program(folder.path(), R"({"peripherals": [{"tx_mtu": "large"}]})");
    EXPECT_EQ(program.waitForExit(), 2);
    EXPECT_NE(program.errors().find("tx_mtu"), std::string::npos) << program.errors();
    EXPECT_EQ(program.output(), "");
    EXPECT_FALSE(pipeExists(commandPipe(folder.path())));
}

TEST_F(Startup, EndsByItselfWithoutUsableBluetooth) {
    struct Case {
        const char* scenario;
        std::vector<std::string> logged;  // in this order
        bool simulatedOnly = false;
    };
    const Case cases[] = {
        {R"({"time_scale": 20, "radios": []})", {"BLE NOT FOUND\r\n", "BLE NOT FOUND\r\n", "Goodbye!"}},
        {R"({"time_scale": 20, "radios": [{"state": "Off", "stuck": true}]})",
         {"Bluetooth ON initiated...", "SHELL: BLE DISABLED!\r\n", "BLE DISABLED\r\n", "Goodbye!"}},
        {R"({"time_scale": 20, "radios": [{"state": "Off"}, {"state": "Disabled"}]})",
         {"BLE DISABLED\r\n", "Goodbye!"}},
        {R"({"time_scale": 20, "adapters": [{"lmp": 5}]})", {"LE NOT SUPPORTED\r\n", "Goodbye!"}, true},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.scenario);
        if (item.simulatedOnly && hasRealBluetoothSide()) continue;
        Program program(folder.path(), item.scenario);
        EXPECT_EQ(program.waitForExit(), 0);
        const std::string output = program.output();
        std::size_t from = 0;
        for (const std::string& line : item.logged) {
            from = output.find(line, from);
            ASSERT_NE(from, std::string::npos) << line << "\n" << output;
            from += line.size();
        }
    }
}

TEST_F(Startup, SwitchesASingleRadioOn) {
    Program program(folder.path(),
                    R"({"time_scale": 20, "radios": [{"state": "Off", "switch_delay_ms": 1500}]})");
    PipeClient shell;
    ASSERT_TRUE(shell.open(commandPipe(folder.path())));
    shell.send("exit\r\n");
    EXPECT_EQ(program.waitForExit(), 0);
    EXPECT_NE(program.output().find("Radio object state is now 1"), std::string::npos);
}

TEST_F(Startup, ReadsTheCommandLine) {
    Program incomplete(folder.path(), "{}", {"--cmdPipe"});
    EXPECT_EQ(incomplete.waitForExit(), 0);
    EXPECT_NE(incomplete.output().find("missing argument for --cmdPipe\n"), std::string::npos)
        << incomplete.output();

    auto arguments = pipes();
    arguments.insert(arguments.end(), {"extra", "--bogus", "-h", "--logfile=name.txt"});
    Program program(folder.path(), "{}", arguments);
    PipeClient shell;
    ASSERT_TRUE(shell.open(commandPipe(folder.path())));
    shell.send("exit\n");
    EXPECT_EQ(program.waitForExit(), 0);
    const std::string output = program.output();
    const char* const version = !hasRealBluetoothSide() ? "Windows 10.0.19041\n"
                                : runsOnOlderSystem()   ? "Windows 6.3."
                                                        : "Windows 10.0.";
    for (const char* text :
         {"ZIQBLEConnect 1.00.4\n", version, "Allowed options:\n", "non_option_args: extra\n",
          "unknown_options: --bogus\n", "Using log file: name.txt\n"}) {
        EXPECT_NE(output.find(text), std::string::npos) << text << "\n" << output;
    }
    // The log goes to this file, whatever name was given.
    std::ifstream file(folder.path() / "everything.log");
    std::stringstream log;
    log << file.rdbuf();
    EXPECT_NE(log.str().find("Goodbye!"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "name.txt"));
}

}  // namespace
