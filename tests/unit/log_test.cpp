// The log: what the program needs from its logging library, whether it is installed or comes from compat/,
// and the way to an output that may take nothing for a while.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <loguru.hpp>
#include <semaphore>
#include <thread>

#include "blescanner/log_writer.h"
#include "tests/unit/document_table.h"
#include "tests/unit/support.h"

namespace {

namespace fs = std::filesystem;
using blescanner::LogWriter;
using Texts = std::vector<std::string>;

struct LogFile : testing::Test {
    LogFile() {
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        loguru::g_preamble_date = loguru::g_preamble_time = false;
        loguru::g_preamble_uptime = loguru::g_preamble_thread = false;
    }
    ~LogFile() override { loguru::remove_all_callbacks(); }

    Texts lines() const {
        std::ifstream stream(name);
        Texts all;
        for (std::string line; std::getline(stream, line);)
            all.push_back(line);
        return all;
    }

    const test::TemporaryFolder folder;
    const std::string name = (folder.path() / "log").string();
};

TEST_F(LogFile, BeginsWithAHeadAndHasFileLineAndLevelColumns) {
    char program[] = "ZIQBLEConnect.exe";
    char* argv[] = {program, nullptr};
    int argc = 1;
    loguru::init(argc, argv);
    std::ofstream(name) << "earlier\n";
    ASSERT_TRUE(loguru::add_file(name.c_str(), loguru::Append, loguru::Verbosity_MAX));
    const Texts head = lines();
    ASSERT_EQ(head.size(), 11U);
    EXPECT_EQ(Texts(head.begin(), head.end() - 1),
              (Texts{"earlier", "", "", "", "", "", "arguments: ZIQBLEConnect.exe",
                     "Current dir: " + fs::current_path().string(), "File verbosity level: 9",
                     "                   file:line     v| "}));
    EXPECT_TRUE(head[10].ends_with("INFO| Logging to '" + name + "', mode: 'a', verbosity: 9"));
    const std::tuple<loguru::Verbosity, const char*, unsigned, const char*> cases[] = {
        {loguru::Verbosity_INFO, "/src/t.cpp", 5, "                  t.cpp:5     INFO| text"},
        {loguru::Verbosity_WARNING, "dir\\t.cpp", 17, "                  t.cpp:17    WARN| text"},
        {loguru::Verbosity_ERROR, "t.cpp", 1234, "                  t.cpp:1234   ERR| text"},
        {loguru::Verbosity_9, "t.cpp", 123456, "                  t.cpp:123456    9| text"},
        {loguru::Verbosity_INFO, "exactly_23_characters.c", 5, "exactly_23_characters.c:5     INFO| text"}};
    for (const auto& [verbosity, file, line, expected] : cases) {
        loguru::StreamLogger(verbosity, file, line) << "text";
        EXPECT_EQ(lines().back(), expected) << "it is flushed";
    }
    loguru::remove_all_callbacks();
    ASSERT_TRUE(loguru::add_file(name.c_str(), loguru::Truncate, loguru::Verbosity_INFO));
    EXPECT_FALSE(loguru::add_file(folder.path().string().c_str(), loguru::Append, loguru::Verbosity_MAX));
    EXPECT_TRUE(lines().at(0).starts_with("arguments: "));
    EXPECT_NE(lines().at(5).find(" ERR| Failed to open '"), std::string::npos);
}

// Of the library's file, and of the writer beside it.
TEST_F(LogFile, LinesOfSeveralThreadsStayWholeAndInOrder) {
    constexpr int kLines = 1000;
    std::string written;
    {
        LogWriter writer([&](std::string_view lines) { return written += lines, true; });
        ASSERT_TRUE(loguru::add_file(name.c_str(), loguru::Truncate, loguru::Verbosity_MAX));
        std::array<std::jthread, 3> threads;
        for (std::size_t id = 0; id < threads.size(); ++id) {
            threads[id] = std::jthread([&writer, id] {
                for (int i = 0; i < kLines; ++i) {
                    const std::string line =
                        "<" + std::to_string(id) + std::string(200, 'x') + std::to_string(i);
                    writer.push(line + "\n");
                    LOG_S(INFO) << line;
                }
            });
        }
        for (std::jthread& thread : threads)
            thread.join();
        EXPECT_TRUE(writer.drain(test::kDeadline));
        writer.push("last\n");
    }
    EXPECT_TRUE(written.ends_with("\nlast\n")) << "what is left at the end is written";
    for (const Texts& all : {test::split(written, '\n'), lines()}) {
        std::array<int, 3> next{};
        for (const std::string& line : all) {
            const auto start = line.find('<');
            if (start == std::string::npos) continue;
            const auto id = static_cast<std::size_t>(line.at(start + 1) - '0');
            ASSERT_EQ(line.substr(start + 2), std::string(200, 'x') + std::to_string(next.at(id)++));
        }
        EXPECT_EQ(next, (std::array{kLines, kLines, kLines}));
    }
}

// A push that waited would wait for ever here.
TEST(LogWriter, PushesReturnWhileTheOutputBlocksAndMissingLinesAreCounted) {
    const std::string missing =
        "             log_writer:0     WARN| [WARNING] Standard output did not take the log, lines missing: ";
    std::counting_semaphore<> blocked(0), goOn(0);
    int failures = 0;
    std::string taken;
    const auto output = [&](std::string_view lines) {
        blocked.release();
        goOn.acquire();
        if (failures > 0 && failures-- > 0) return false;
        taken += lines;
        return true;
    };
    LogWriter writer(output, 30);
    const auto drained = [&](const std::string& line = "") {
        if (!line.empty()) writer.push(line);
        EXPECT_TRUE(writer.drain(test::kDeadline));
        return std::exchange(taken, "");
    };
    writer.push("first\n");
    EXPECT_TRUE(blocked.try_acquire_for(test::kDeadline));
    EXPECT_FALSE(writer.drain(std::chrono::milliseconds(20))) << "it is being written";
    for (const char* line : {"second 901234\n", "third 8901234\n", "too long\n", "x\n", "y\n"})
        writer.push(line);
    goOn.release(1000);
    EXPECT_EQ(drained(), "first\nsecond 901234\nthird 8901234\n" + missing + "3\n")
        << "a short line has no room where a longer one had none";
    EXPECT_EQ(drained("later\n"), "later\n");
    EXPECT_EQ(drained(std::string(31, 'x')), missing + "1\n");
    failures = 2;
    std::string all;
    for (const char* line : {"a\n", "b\n", "c\n", "d\n"})
        all += drained(line);
    EXPECT_EQ(all, "c\n" + missing + "2\nd\n");
}

}  // namespace
