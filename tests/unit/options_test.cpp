// The command line and the version rule.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <loguru.hpp>

#include "blescanner/blescanner.h"
#include "blescanner/settings.h"
#include "platform/bluetooth/sim/world.h"
#include "tests/unit/support.h"

namespace {

namespace fs = std::filesystem;

const std::string kHelp =
    "Allowed options:\n"
    "  -h, --help         Display use information\n"
    "  -c, --cmdPipe arg  Command pipe [default \\\\.\\\\pipe\\ZIQBLESh]\n"
    "  -d, --datPipe arg  Data pipe    [default \\\\.\\\\pipe\\ZIQBLECOM]\n"
    "  -f, --logfile arg  Log to file in addition to stdout [default is none]\n";

TEST(Options, SettingsAndOutput) {
    const fs::path previous = fs::current_path();
    const test::TemporaryFolder folder;
    fs::current_path(folder.path());
    loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
    const std::wstring cmd = L"\\\\.\\\\pipe\\ZIQBLESh";
    const std::wstring dat = L"\\\\.\\\\pipe\\ZIQBLECOM";
    using Names = std::vector<std::wstring>;
    const std::tuple<std::vector<std::string>, std::string, Names> cases[] = {
        {{}, "", {cmd, dat, L"nul"}},
        {{"--datPipe=b", "--cmdPipe", "gr\xC3\xBC\xC3\x9F"}, "", {L"gr\u00FC\u00DF", L"b", L"nul"}},
        {{"-c", "", "--cmdPipe=second"}, "", {L"", dat, L"nul"}},
        {{"-hh", "--help", "-x", "extra"},
         kHelp + "non_option_args: extra\nunknown_options: -x\n",
         {cmd, dat, L"nul"}},
        {{"--logfile=", "--logfile=second"}, "", {cmd, dat, L"nul"}},
        {{"--logfile", "x.txt"}, "Using log file: x.txt\n", {cmd, dat, L"x.txt"}}};
    std::ofstream("everything.log") << "earlier\n";
    for (const auto& [arguments, output, names] : cases) {
        blescanner::settings() = {};
        testing::internal::CaptureStdout();
        blescanner::setUpOptions(arguments);
        EXPECT_TRUE(blescanner::finishOutput());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), output);
        const auto& settings = blescanner::settings();
        EXPECT_EQ((Names{settings.cmdPipeName, settings.datPipeName, settings.logFileName}), names);
    }
    std::string line;
    EXPECT_TRUE(std::getline(std::ifstream("everything.log"), line) && line == "earlier") << line;
    EXPECT_EQ(std::distance(fs::directory_iterator("."), {}), 1) << "no file but this one";
    loguru::remove_all_callbacks();
    blescanner::settings() = {};
    fs::current_path(previous);
}

TEST(Version, ThresholdAndText) {
    const std::tuple<std::string, bool, const wchar_t*> cases[] = {{"6,3,99999", true, L"6.3.99999"},
                                                                   {"10,0,15062", true, L"10.0.15062"},
                                                                   {"10,0,15063", false, L"10.0.15063"},
                                                                   {"10,1,0", false, L"10.1.0"}};
    for (const auto& [version, older, text] : cases) {
        sim::WorldScope world(R"({"os_version":[)" + version + "]}");
        EXPECT_EQ(blescanner::isOlderThanThresholdBuild(), older) << version;
        EXPECT_EQ(blescanner::windowsVersionText(), text);
    }
}

}  // namespace
