// What the program needs from its two libraries, whether they are installed or come from compat/.
#include <gtest/gtest.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <loguru.hpp>
#include <popl.hpp>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/e2e/harness.h"

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

    const e2e::TemporaryFolder folder_;
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

TEST_F(LoguruTest, DateAndTimeAreColumnsOfTheirOwn) {
    const auto now = [](const char* format) {
        const std::time_t seconds = std::time(nullptr);
        std::ostringstream text;
        text << std::put_time(std::localtime(&seconds), format);
        return text.str();
    };
    const std::tuple<bool, bool, const char*, const char*, const char*> cases[] = {
        {true, false, "%Y-%m-%d ", "", "date       "},
        {false, true, "%H:%M:%S", R"(\.\d{3} )", "time         "},
        {true, true, "%Y-%m-%d %H:%M:%S", R"(\.\d{3} )", "date       time         "},
    };
    for (const auto& [date, time, format, milliseconds, titles] : cases) {
        loguru::g_preamble_date = date;
        loguru::g_preamble_time = time;
        const std::string before = now(format);
        ASSERT_TRUE(loguru::add_file(file_.c_str(), loguru::Truncate, loguru::Verbosity_MAX));
        const std::string after = now(format);
        loguru::remove_all_callbacks();

        EXPECT_EQ(linesOfFile().at(3), std::string(titles) + "                   file:line     v| ");
        const std::string line = linesOfFile().at(4);
        const std::string stamp = line.substr(0, before.size());
        EXPECT_TRUE(before <= stamp && (stamp <= after || after < before)) << before << "|" << line;
        const std::regex rest(milliseconds + std::string(" +loguru.cpp:\\d+ +INFO\\| Logging to '.*"));
        EXPECT_TRUE(std::regex_match(line.substr(before.size()), rest)) << line;
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
        EXPECT_EQ(start, std::string("        compat_test.cpp:123   INFO| ").size());
        const auto id = static_cast<std::size_t>(line.at(start + 1) - '0');
        const std::string counted = std::to_string(id) + ":" + std::to_string(next.at(id)++);
        ASSERT_EQ(line.substr(start), "<" + counted + std::string(200, 'x') + ">");
    }
    EXPECT_EQ(next, (std::array{kLines, kLines, kLines, kLines}));
}

template <class Call>
std::string errorOf(Call call) {
    try {
        call();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "none";
}

// Parses a command line. Returns "SWITCHES|VALUES|NON-OPTIONS|UNKNOWN OPTIONS", or the error's text.
std::string parsed(std::vector<const char*> arguments) {
    popl::OptionParser parser("Title");
    const auto flag = parser.add<popl::Switch>("s", "switch", "A switch");
    const auto value = parser.add<popl::Value<std::string>>("v", "value", "A value");
    arguments.insert(arguments.begin(), "program");
    const std::string error =
        errorOf([&] { parser.parse(static_cast<int>(arguments.size()), arguments.data()); });
    if (error != "none") return error;
    Texts values;
    for (std::size_t i = 0; i < value->count(); ++i)
        values.push_back(value->value(i));
    return std::to_string(flag->count()) + "|" + bracketed(values) + "|" +
           bracketed(parser.non_option_args()) + "|" + bracketed(parser.unknown_options());
}

TEST(PoplTest, CommandLines) {
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"-s", "--switch", "-ss"}, "4|||"},
        {{"--value=a=b", "--value", "c", "-v", "d", "-ve"}, "0|[a=b][c][d][e]||"},
        {{"--value=", "-v", ""}, "0|[][]||"},
        {{"--value", "--switch", "-v", "--"}, "0|[--switch][--]||"},
        {{"-sv", "a", "-svos"}, "2|[a][os]||"},
        {{"a", "-s", "-", ""}, "1||[a][-][]|"},
        {{"--", "-s", "--", "a"}, "0||[-s][--][a]|"},
        {{"--bogus=1", "--Value=2", "--valu", "--=", "-x"}, "0|||[--bogus=1][--Value=2][--valu][--=][-x]"},
        {{"-sx", "-xv", "a"}, "1|[a]||[-sx][-xv]"},
        {{"--value"}, "missing argument for --value"},
        {{"-sv"}, "missing argument for -v"},
    };
    for (const auto& [arguments, expected] : cases)
        EXPECT_EQ(parsed(arguments), expected);
}

TEST(PoplTest, ErrorTexts) {
    using Text = popl::Value<std::string>;
    popl::OptionParser parser("Title");
    const auto option = parser.add<Text>("o", "option", "");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("", "", ""); }), "short and long option are empty");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("ab", "c", ""); }), "length of short option must be <= 1: 'ab'");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("o", "new", ""); }), "duplicate short option '-o'");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("n", "option", ""); }), "duplicate long option '--option'");
    EXPECT_EQ(errorOf([&] { parser.help(popl::Attribute::hidden); }), "visibility must be at least normal");
    EXPECT_EQ(errorOf([&] { option->value(); }), "option not set: \"option\"");
    const char* const argv[] = {"program", "-oa"};
    parser.parse(2, argv);
    EXPECT_EQ(errorOf([&] { option->value(1); }), "index out of range (1) for \"option\"");
}

}  // namespace
