// What the program relies on in its two libraries, installed or not.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <loguru.hpp>
#include <map>
#include <popl.hpp>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

class LoguruTest : public testing::Test {
  protected:
    LoguruTest() {
        fs::create_directories(directory_);
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        loguru::g_preamble_date = false;
        loguru::g_preamble_time = false;
        loguru::g_preamble_uptime = false;
        loguru::g_preamble_thread = false;
    }
    ~LoguruTest() override {
        loguru::remove_all_callbacks();
        fs::remove_all(directory_);
    }

    std::string path(const std::string& name) const { return (directory_ / name).string(); }

    static std::vector<std::string> linesOf(const std::string& path) {
        std::ifstream file(path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

    static void keepWholeLine(void* lines, const loguru::Message& message) {
        static_cast<std::vector<std::string>*>(lines)->push_back(
            std::string(message.preamble) + message.indentation + message.prefix + message.message);
    }

  private:
    const fs::path directory_ =
        fs::path(testing::TempDir()) / ("ziqble-compat-" + std::to_string(std::random_device{}()));
};

TEST_F(LoguruTest, PreambleHasFileLineAndLevelColumns) {
    std::vector<std::string> lines;
    loguru::add_callback("lines", keepWholeLine, &lines, loguru::Verbosity_MAX);
    const struct {
        loguru::Verbosity verbosity;
        const char* file;
        unsigned line;
        const char* expected;
    } cases[] = {
        {loguru::Verbosity_INFO, "/src/t.cpp", 5, "                  t.cpp:5     INFO| text"},
        {loguru::Verbosity_WARNING, "dir\\t.cpp", 17, "                  t.cpp:17    WARN| text"},
        {loguru::Verbosity_ERROR, "t.cpp", 1234, "                  t.cpp:1234   ERR| text"},
        {loguru::Verbosity_9, "t.cpp", 123456, "                  t.cpp:123456    9| text"},
        {loguru::Verbosity_INFO, "exactly_23_characters.c", 5, "exactly_23_characters.c:5     INFO| text"},
    };
    for (const auto& test : cases) {
        loguru::StreamLogger(test.verbosity, test.file, test.line) << "te"
                                                                   << "xt";
        EXPECT_EQ(lines.back(), test.expected);
    }
}

TEST_F(LoguruTest, NothingIsEvaluatedThatNoSinkWants) {
    int evaluated = 0;
    LOG_S(ERROR) << ++evaluated;
    EXPECT_EQ(evaluated, 0);

    std::vector<std::string> lines;
    loguru::add_callback("lines", keepWholeLine, &lines, loguru::Verbosity_WARNING);
    LOG_S(INFO) << ++evaluated;
    EXPECT_EQ(evaluated, 0);
    LOG_S(WARNING) << ++evaluated;
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(lines.size(), 1U);

    EXPECT_TRUE(loguru::remove_callback("lines"));
    EXPECT_FALSE(loguru::remove_callback("lines"));
    LOG_S(ERROR) << ++evaluated;
    EXPECT_EQ(evaluated, 1);
}

TEST_F(LoguruTest, FileSinkAppendsItsHeadAndFlushesEachLine) {
    char name[] = "ZIQBLEConnect.exe";
    char* argv[] = {name, nullptr};
    int argc = 1;
    loguru::init(argc, argv);
    const std::string file = path("log");
    std::ofstream(file) << "earlier\n";

    ASSERT_TRUE(loguru::add_file(file.c_str(), loguru::Append, loguru::Verbosity_MAX));
    LOG_S(9) << "last";

    const std::vector<std::string> lines = linesOf(file);
    ASSERT_EQ(lines.size(), 12U);
    const std::vector<std::string> head(lines.begin(), lines.begin() + 10);
    EXPECT_EQ(head,
              (std::vector<std::string>{"earlier", "", "", "", "", "", "arguments: ZIQBLEConnect.exe",
                                        "Current dir: " + fs::current_path().string(),
                                        "File verbosity level: 9", "                   file:line     v| "}));
    EXPECT_TRUE(lines[10].ends_with("INFO| Logging to '" + file + "', mode: 'a', verbosity: 9")) << lines[10];
    EXPECT_TRUE(lines[11].ends_with("   9| last")) << lines[11];

    loguru::remove_all_callbacks();
    LOG_S(ERROR) << "after the end";
    EXPECT_EQ(linesOf(file).size(), 12U);
}

TEST_F(LoguruTest, TruncatedFileStartsWithItsHeadAndAnUnusableOneIsReported) {
    const std::string file = path("log");
    std::ofstream(file) << "earlier\n";
    ASSERT_TRUE(loguru::add_file(file.c_str(), loguru::Truncate, loguru::Verbosity_INFO));
    EXPECT_FALSE(loguru::add_file(path("").c_str(), loguru::Append, loguru::Verbosity_MAX));

    const std::vector<std::string> lines = linesOf(file);
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_TRUE(lines[0].starts_with("arguments: ")) << lines[0];
    EXPECT_NE(lines[4].find("mode: 'w', verbosity: 0"), std::string::npos) << lines[4];
    EXPECT_NE(lines[5].find(" ERR| Failed to open '"), std::string::npos) << lines[5];
}

TEST_F(LoguruTest, LinesOfSeveralThreadsStayWhole) {
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    const std::string file = path("log");
    ASSERT_TRUE(loguru::add_file(file.c_str(), loguru::Truncate, loguru::Verbosity_MAX));
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
        threads.emplace_back([id] {
            for (int i = 0; i < kLines; ++i)
                LOG_S(INFO) << "<" << id << ":" << i << std::string(200, 'x') << ">";
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    const std::regex whole(" *compat_test.cpp:[0-9]+ +INFO\\| <([0-9]):([0-9]+)x{200}>");
    std::map<std::string, int> next;
    for (const std::string& line : linesOf(file)) {
        std::smatch parts;
        if (line.find('<') == std::string::npos) continue;
        ASSERT_TRUE(std::regex_match(line, parts, whole)) << line;
        EXPECT_EQ(std::stoi(parts[2]), next[parts[1]]++);
    }
    EXPECT_EQ(next, (std::map<std::string, int>{{"0", kLines}, {"1", kLines}, {"2", kLines}, {"3", kLines}}));
}

// The texts that one command line gives, in brackets each.
struct Parsed {
    std::size_t switches = 0;
    std::string values;
    std::string nonOptions;
    std::string unknown;
    bool operator==(const Parsed&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Parsed& parsed) {
    return out << parsed.switches << " values " << parsed.values << " non-options " << parsed.nonOptions
               << " unknown " << parsed.unknown;
}

std::string bracketed(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts)
        all += "[" + text + "]";
    return all;
}

Parsed parse(std::vector<const char*> arguments) {
    popl::OptionParser parser("Title");
    const auto flag = parser.add<popl::Switch>("s", "switch", "A switch");
    const auto other = parser.add<popl::Switch>("o", "", "Another");
    const auto value = parser.add<popl::Value<std::string>>("v", "value", "A value");
    arguments.insert(arguments.begin(), "program");
    parser.parse(static_cast<int>(arguments.size()), arguments.data());
    std::vector<std::string> values;
    for (std::size_t i = 0; i < value->count(); ++i)
        values.push_back(value->value(i));
    EXPECT_EQ(value->is_set(), !values.empty());
    return {flag->count() + 10 * other->count(), bracketed(values), bracketed(parser.non_option_args()),
            bracketed(parser.unknown_options())};
}

TEST(PoplTest, AcceptedForms) {
    const struct {
        std::vector<const char*> arguments;
        Parsed expected;
    } cases[] = {
        {{}, {}},
        {{"-s", "--switch"}, {2, "", "", ""}},
        {{"-sos"}, {12, "", "", ""}},
        {{"--value=a=b", "--value", "c", "-v", "d", "-ve"}, {0, "[a=b][c][d][e]", "", ""}},
        {{"--value=", "-v", ""}, {0, "[][]", "", ""}},
        {{"--value", "--switch", "-v", "--"}, {0, "[--switch][--]", "", ""}},
        {{"-sv", "a", "-svos"}, {2, "[a][os]", "", ""}},
        {{"a", "-s", "-", ""}, {1, "", "[a][-][]", ""}},
        {{"--", "-s", "--", "a"}, {0, "", "[-s][--][a]", ""}},
        {{"--bogus", "--bogus=1", "--Value=2", "--valu", "--=", "-x"},
         {0, "", "", "[--bogus][--bogus=1][--Value=2][--valu][--=][-x]"}},
        {{"-sx", "-xv", "a"}, {1, "[a]", "", "[-sx][-xv]"}},
    };
    for (const auto& test : cases)
        EXPECT_EQ(parse(test.arguments), test.expected);
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

TEST(PoplTest, ErrorTexts) {
    using Text = popl::Value<std::string>;
    popl::OptionParser parser("Title");
    const auto unset = parser.add<Text>("u", "unset", "");
    const auto given = parser.add<Text>("g", "given", "");
    const char* const argv[] = {"program", "-ga"};
    parser.parse(2, argv);

    EXPECT_EQ(errorOf([] { parse({"--value"}); }), "missing argument for --value");
    EXPECT_EQ(errorOf([] { parse({"-v"}); }), "missing argument for -v");
    EXPECT_EQ(errorOf([] { parse({"-sv"}); }), "missing argument for -v");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("", "", ""); }), "short and long option are empty");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("ab", "c", ""); }), "length of short option must be <= 1: 'ab'");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("u", "new", ""); }), "duplicate short option '-u'");
    EXPECT_EQ(errorOf([&] { parser.add<Text>("n", "given", ""); }), "duplicate long option '--given'");
    EXPECT_EQ(errorOf([&] { parser.help(popl::Attribute::hidden); }), "visibility must be at least normal");
    EXPECT_EQ(errorOf([&] { unset->value(); }), "option not set: \"unset\"");
    EXPECT_EQ(errorOf([&] { given->value(1); }), "index out of range (1) for \"given\"");
}

}  // namespace
