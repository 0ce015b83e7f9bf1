// The command line and the version rule.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <loguru.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "blescanner/blescanner.h"
#include "platform/bluetooth/sim/world.h"

namespace {

namespace fs = std::filesystem;

const std::string kHelp =
    "Allowed options:\n"
    "-h, --help         Display use information\n"
    "-c, --cmdPipe arg  Command pipe [default \\\\.\\\\pipe\\ZIQBLESh]\n"
    "-d, --datPipe arg  Data pipe    [default \\\\.\\\\pipe\\ZIQBLECOM]\n"
    "-f, --logfile arg  Log to file in addition to stdout [default is none]\n";

// Runs in an empty directory of its own, with the default settings.
class OptionsTest : public testing::Test {
  protected:
    OptionsTest() {
        fs::create_directories(directory_);
        fs::current_path(directory_);
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        blescanner::settings() = {};
    }
    ~OptionsTest() override {
        loguru::remove_all_callbacks();
        blescanner::settings() = {};
        fs::current_path(previous_);
        fs::remove_all(directory_);
    }

    static std::string outputOf(const std::vector<std::string>& arguments) {
        testing::internal::CaptureStdout();
        blescanner::setUpOptions(arguments);
        return testing::internal::GetCapturedStdout();
    }

    static std::vector<std::wstring> names() {
        const blescanner::ProcessSettings& settings = blescanner::settings();
        return {settings.cmdPipeName, settings.datPipeName, settings.logFileName};
    }

  private:
    const fs::path previous_ = fs::current_path();
    const fs::path directory_ =
        fs::path(testing::TempDir()) / ("ziqble-options-" + std::to_string(std::random_device{}()));
};

TEST_F(OptionsTest, SettingsAndOutput) {
    const std::wstring cmd = L"\\\\.\\\\pipe\\ZIQBLESh";
    const std::wstring dat = L"\\\\.\\\\pipe\\ZIQBLECOM";
    const struct {
        std::vector<std::string> arguments;
        std::string output;
        std::vector<std::wstring> names;
    } cases[] = {
        {{}, "", {cmd, dat, L"nul"}},
        {{"-c", "a", "-d", "b"}, "", {L"a", L"b", L"nul"}},
        {{"--datPipe=b", "--cmdPipe", "gr\xC3\xBC\xC3\x9F"}, "", {L"gr\u00FC\u00DF", L"b", L"nul"}},
        {{"-c", "first", "--cmdPipe=second"}, "", {L"first", dat, L"nul"}},
        {{"--cmdPipe="}, "", {L"", dat, L"nul"}},
        {{"extra", "--bogus", "more", "-x"},
         "non_option_args: extra\nnon_option_args: more\nunknown_options: --bogus\nunknown_options: -x\n",
         {cmd, dat, L"nul"}},
        {{"-h", "extra", "-c", "a"}, kHelp + "non_option_args: extra\n", {L"a", dat, L"nul"}},
        {{"-h", "--help"}, kHelp, {cmd, dat, L"nul"}},
        {{"-hhhh"}, kHelp, {cmd, dat, L"nul"}},
        {{"--logfile="}, "", {cmd, dat, L"nul"}},
        {{"--logfile=", "--logfile=second"}, "", {cmd, dat, L"nul"}},
    };
    for (const auto& test : cases) {
        blescanner::settings() = {};
        EXPECT_EQ(outputOf(test.arguments), test.output);
        EXPECT_EQ(names(), test.names);
    }
    EXPECT_TRUE(fs::is_empty(fs::current_path()));
}

TEST_F(OptionsTest, LogFileIsAlwaysTheSameAndOnlyAppendedTo) {
    std::ofstream("everything.log") << "earlier\n";
    EXPECT_EQ(outputOf({"--logfile", "x.txt"}), "Using log file: x.txt\n");
    LOG_S(9) << "a detail";

    EXPECT_EQ(names()[2], L"x.txt");
    EXPECT_FALSE(fs::exists("x.txt"));
    std::ifstream file("everything.log");
    const std::string log{std::istreambuf_iterator<char>(file), {}};
    EXPECT_TRUE(log.starts_with("earlier\n\n\n\n\n\narguments: ")) << log;
    EXPECT_NE(log.find("INFO| Logging to 'everything.log', mode: 'a', verbosity: 9\n"), std::string::npos)
        << log;
    EXPECT_TRUE(log.ends_with("   9| a detail\n")) << log;
}

TEST_F(OptionsTest, MissingValueChangesNothing) {
    for (const char* option : {"-c", "--cmdPipe", "-d", "--datPipe", "-f", "--logfile"}) {
        try {
            blescanner::setUpOptions({"--cmdPipe=given", option});
            FAIL() << option;
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(error.what(), std::string("missing argument for ") + option);
        }
        EXPECT_EQ(names(), (std::vector<std::wstring>{L"\\\\.\\\\pipe\\ZIQBLESh", L"\\\\.\\\\pipe\\ZIQBLECOM",
                                                      L"nul"}));
    }
}

TEST(VersionTest, ThresholdAndText) {
    const struct {
        const char* scenario;
        bool older;
        const wchar_t* text;
    } cases[] = {
        {R"({"os_version":[0,0,0]})", true, L"0.0.0"},
        {R"({"os_version":[6,3,99999]})", true, L"6.3.99999"},
        {R"({"os_version":[10,0,15062]})", true, L"10.0.15062"},
        {R"({"os_version":[10,0,15063]})", false, L"10.0.15063"},
        {R"({"os_version":[10,1,0]})", false, L"10.1.0"},
        {R"({"os_version":[11,0,0]})", false, L"11.0.0"},
    };
    for (const auto& test : cases) {
        sim::WorldScope world(test.scenario);
        EXPECT_EQ(blescanner::isOlderThanThresholdBuild(), test.older) << test.scenario;
        EXPECT_EQ(blescanner::windowsVersionText(), test.text);
    }
}

}  // namespace
