// What the program needs from its logging library, whether it is installed or comes from compat/.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <loguru.hpp>
#include <thread>
#include <vector>

#include "tests/unit/support.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

std::string bracketed(const Texts& texts) {
    std::string all;
    for (const std::string& text : texts)
        all += "[" + text + "]";
    return all;
}

class LoguruTest : public testing::Test {
  protected:
    LoguruTest() {
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        loguru::g_preamble_date = loguru::g_preamble_time = false;
        loguru::g_preamble_uptime = loguru::g_preamble_thread = false;
    }
    ~LoguruTest() override { loguru::remove_all_callbacks(); }

    Texts linesOfFile() const {
        std::ifstream file(file_);
        Texts lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }
    static void keepWholeLine(void* lines, const loguru::Message& message) {
        static_cast<Texts*>(lines)->push_back(std::string(message.preamble) + message.indentation +
                                              message.prefix + message.message);
    }

    const test::TemporaryFolder folder_;
    const std::string file_ = (folder_.path() / "log").string();
};

TEST_F(LoguruTest, PreambleHasFileLineAndLevelColumns) {
    Texts lines;
    loguru::add_callback("lines", keepWholeLine, &lines, loguru::Verbosity_MAX);
    const std::tuple<loguru::Verbosity, const char*, unsigned, const char*> cases[] = {
        {loguru::Verbosity_INFO, "/src/t.cpp", 5, "                  t.cpp:5     INFO| text"},
        {loguru::Verbosity_WARNING, "dir\\t.cpp", 17, "                  t.cpp:17    WARN| text"},
        {loguru::Verbosity_ERROR, "t.cpp", 1234, "                  t.cpp:1234   ERR| text"},
        {loguru::Verbosity_9, "t.cpp", 123456, "                  t.cpp:123456    9| text"},
        {loguru::Verbosity_INFO, "exactly_23_characters.c", 5, "exactly_23_characters.c:5     INFO| text"},
    };
    for (const auto& [verbosity, file, line, expected] : cases) {
        loguru::StreamLogger(verbosity, file, line) << "text";
        EXPECT_EQ(lines.back(), expected);
    }
}

TEST_F(LoguruTest, FileSinkAppendsItsHeadAndFlushesEachLine) {
    char name[] = "ZIQBLEConnect.exe";
    char* argv[] = {name, nullptr};
    int argc = 1;
    loguru::init(argc, argv);
    std::ofstream(file_) << "earlier\n";
    ASSERT_TRUE(loguru::add_file(file_.c_str(), loguru::Append, loguru::Verbosity_MAX));
    LOG_S(9) << "last";

    const Texts lines = linesOfFile();
    ASSERT_EQ(lines.size(), 12U);
    const std::string expected =
        "[earlier][][][][][][arguments: ZIQBLEConnect.exe][Current dir: " + fs::current_path().string() +
        "][File verbosity level: 9][                   file:line     v| ]";
    EXPECT_EQ(bracketed({lines.begin(), lines.begin() + 10}), expected);
    EXPECT_TRUE(lines[10].ends_with("INFO| Logging to '" + file_ + "', mode: 'a', verbosity: 9"));
    EXPECT_TRUE(lines[11].ends_with("   9| last")) << lines[11];

    loguru::remove_all_callbacks();
    ASSERT_TRUE(loguru::add_file(file_.c_str(), loguru::Truncate, loguru::Verbosity_INFO));
    EXPECT_FALSE(loguru::add_file(folder_.path().string().c_str(), loguru::Append, loguru::Verbosity_MAX));
    EXPECT_TRUE(linesOfFile().at(0).starts_with("arguments: "));
    EXPECT_NE(linesOfFile().at(5).find(" ERR| Failed to open '"), std::string::npos);
}

TEST_F(LoguruTest, LinesOfSeveralThreadsStayWhole) {
    constexpr int kLines = 500;
    ASSERT_TRUE(loguru::add_file(file_.c_str(), loguru::Truncate, loguru::Verbosity_MAX));
    std::array<std::thread, 4> threads;
    for (std::size_t id = 0; id < threads.size(); ++id) {
        threads[id] = std::thread([id] {
            for (int i = 0; i < kLines; ++i)
                LOG_S(INFO) << "<" << id << ":" << i << std::string(200, 'x') << ">";
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    std::array<int, 4> next{};
    for (const std::string& line : linesOfFile()) {
        const auto start = line.find('<');
        if (start == std::string::npos) continue;
        EXPECT_EQ(start, std::string("        compat_test.cpp:98    INFO| ").size());
        const auto id = static_cast<std::size_t>(line.at(start + 1) - '0');
        const std::string counted = std::to_string(id) + ":" + std::to_string(next.at(id)++);
        ASSERT_EQ(line.substr(start), "<" + counted + std::string(200, 'x') + ">");
    }
    EXPECT_EQ(next, (std::array{kLines, kLines, kLines, kLines}));
}

}  // namespace
