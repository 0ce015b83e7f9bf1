// The whole program in a process of its own: what it prints, and how it ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "blescanner/blescanner.h"
#include "blescanner/cmdpipe.h"
#include "platform/bluetooth/sim/world.h"
#include "platform/runtime.h"
#include "tests/e2e/harness.h"
#include "tests/eventually.h"

namespace {

namespace fs = std::filesystem;

// Takes any text, and keeps it.
class Keep : public testing::MatcherInterface<const std::string&> {
  public:
    explicit Keep(std::string& text) : text_(text) {}
    bool MatchAndExplain(const std::string& text, testing::MatchResultListener*) const override {
        text_ = text;
        return true;
    }
    void DescribeTo(std::ostream*) const override {}

  private:
    std::string& text_;
};

class Program : public testing::Test {
  public:
    using During = std::function<void(const Program&)>;

    Program() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        // The one of the process that looks, also in the process that plays.
        const auto owner = testing::internal::InDeathTestChild() ? ::getppid() : ::getpid();
        folder_ = fs::temp_directory_path() / ("ziqble-" + std::to_string(owner));
        fs::create_directories(folder_);
    }
    ~Program() override { fs::remove_all(folder_); }

    // Runs it with these arguments behind those for the pipes; `during` runs beside it, on another thread.
    // Returns what it has written to both outputs.
    std::string run(const std::string& scenario, const std::vector<std::string>& more, int exitCode,
                    const During& during) {
        std::string output;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EXIT(play(scenario, more, during), testing::ExitedWithCode(exitCode),
                    testing::Matcher<const std::string&>(new Keep(output)));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        return output;
    }
    std::string run(const std::string& scenario, const std::vector<std::string>& more = {}) {
        return run(scenario, more, 0, [](const Program& program) { program.client().send("exit\n"); });
    }
    e2e::PipeClient client() const {
        e2e::PipeClient client;
        EXPECT_TRUE(client.open(e2e::commandPipe(folder_)));
        return client;
    }

    fs::path folder_;

  private:
    [[noreturn]] void play(const std::string& scenario, const std::vector<std::string>& more,
                           const During& during) const {
        std::ofstream(folder_ / "scenario") << scenario;
        ::setenv("ZIQBLE_SCENARIO", (folder_ / "scenario").c_str(), 1);
        fs::current_path(folder_);
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        std::vector<std::string> arguments{"-c", e2e::commandPipe(folder_), "-d", e2e::dataPipe(folder_)};
        arguments.insert(arguments.end(), more.begin(), more.end());
        std::thread beside([&] { during(*this); });
        const int exitCode = blescanner::runProgram(arguments);
        ::close(STDOUT_FILENO);
        beside.join();
        ::dprintf(STDERR_FILENO, "returned\n");
        platform::endProcess(exitCode);
    }
};

long count(const std::string& text, const std::string& pattern) {
    std::istringstream lines(text);
    long found = 0;
    for (std::string line; std::getline(lines, line);)
        found += std::regex_match(line, std::regex(pattern)) ? 1 : 0;
    return found;
}

TEST_F(Program, LogsEachLineOnceInItsColumns) {
    const std::string output = run(R"({"os_version": [10, 0, 15062]})", {"--logfile=x", "stray"});
    const std::string goodbye = " +blescanner\\.cpp:\\d+ +INFO\\| Goodbye!";
    EXPECT_EQ(count(output, goodbye), 1) << output;
    EXPECT_EQ(count(output, ".*INFO\\| ZIQBLEConnect \\d+\\.\\d+\\.\\d+"), 1);
    EXPECT_EQ(count(output, ".*INFO\\| Version check: Windows 10\\.0\\.15062"), 1);
    EXPECT_EQ(count(output, ".*WARN\\| \\[WARNING\\] It is recommended to use Windows 10 v1607 or later!"),
              1);
    EXPECT_EQ(count(output, "non_option_args: stray"), 1);
    EXPECT_EQ(count(output, ".*Shell pipe terminated\\.\\.\\."), 1);
    EXPECT_EQ(count(output, "sim: TIO-SIM .* violations 0"), 1);
    EXPECT_EQ(count(output, "returned"), 1);
    EXPECT_FALSE(fs::exists(e2e::commandPipe(folder_)));
    std::ostringstream file;
    file << std::ifstream(folder_ / "everything.log").rdbuf();
    EXPECT_EQ(count(file.str(), "arguments: ZIQBLEConnect.exe"), 1) << file.str();
    EXPECT_EQ(count(file.str(), goodbye), 1);

    ::setenv("ZIQBLE_LOG_TIME", "1", 1);
    EXPECT_EQ(count(run("{}"), "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}" + goodbye), 1);
    ::setenv("ZIQBLE_LOG_TIME", "0", 1);
    EXPECT_EQ(count(run("{}"), goodbye), 1);
}

TEST_F(Program, TellsWhyItCannotStart) {
    const auto nothing = [](const Program&) {};
    const std::string refused = run(R"({"peripherals": [{"tx_mtu": "large"}]})", {}, 2, nothing);
    EXPECT_EQ(count(refused, "ZIQBLEConnect: .*tx_mtu.*"), 1) << refused;
    EXPECT_EQ(count(refused, ".*"), 2) << "and says that it has returned";
    const std::string incomplete = run("{}", {"--cmdPipe"}, 0, nothing);
    EXPECT_EQ(count(incomplete, "missing argument for --cmdPipe"), 1) << incomplete;
    EXPECT_EQ(count(incomplete, ".*Goodbye!"), 0);
    const std::string failed =
        run(R"({"faults": [{"on": "radios", "do": "throw:0x80004005"}]})", {}, 0, nothing);
    EXPECT_EQ(count(failed, ".* ERR\\| Unknown exception in shell thread!"), 1) << failed;
    EXPECT_EQ(count(failed, ".* ERR\\| .*HRESULT: -2147467259"), 1);
    EXPECT_EQ(count(failed, ".*Goodbye!"), 1);
}

// Whatever hangs, the program ends within five seconds, which run() looks at.
TEST_F(Program, EndsThoughACallHangs) {
    const std::string link =
        run(R"({"time_scale": 100, "peripherals": [{"faults": [{"on": "session", "do": "hang"}]}]})", {}, 0,
            [](const Program& program) {
                auto client = program.client();
                client.send("connect 00:1A:7D:DA:71:13\n");
                test::eventually([] { return sim::currentWorld()->peripheral(0).faultsHappened() == 1; });
                std::raise(SIGTERM);
            });
    EXPECT_EQ(count(link,
                    ".*WARN\\| \\[WARNING\\] A Bluetooth call of the link session has not come back, it is "
                    "cancelled!"),
              1)
        << link;
    EXPECT_EQ(count(link, ".*Goodbye!|returned"), 2);

    static std::atomic<bool> hangs = false;
    blescanner::CNamedPipe::creator = [](std::wstring_view) -> platform::Pipe::Created {
        for (hangs = true;;)
            ::pause();
    };
    const std::string shell = run("{}", {}, 0, [](const Program&) {
        test::eventually([] { return hangs.load(); });
        platform::requestStop();
    });
    blescanner::CNamedPipe::creator = platform::Pipe::create;
    EXPECT_EQ(count(shell, ".*WARN\\| \\[WARNING\\] A Bluetooth call of the shell has not come back!"), 1)
        << shell;
    EXPECT_EQ(count(shell, ".*Goodbye!"), 1);
    EXPECT_EQ(count(shell, "returned"), 0) << "nothing may be destroyed under the call";
}

// The output of another program that has made it non-blocking, and that reads late or never.
TEST_F(Program, WritesToAFullPipe) {
    for (const bool reads : {true, false}) {
        const std::string output = run("{}", {}, 0, [reads](const Program& program) {
            std::array<int, 2> ends{};
            ASSERT_EQ(::pipe(ends.data()), 0);
            auto client = program.client();
            if (reads) ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
            ::dup2(ends[1], STDOUT_FILENO);
            ::close(ends[1]);
            for (int i = 0; i < 2000; ++i)
                blescanner::print(std::string(99, '~') + "\n");
            client.send("exit\n");
            client.waitForClose();
            std::array<char, 4096> block{'\n'};
            for (ssize_t taken = 1; reads && taken > 0; taken = ::read(ends[0], block.data(), block.size()))
                EXPECT_EQ(::write(STDERR_FILENO, block.data(), static_cast<std::size_t>(taken)), taken);
        });
        EXPECT_EQ(std::count(output.begin(), output.end(), '~'), reads ? 2000 * 99 : 0);
        EXPECT_EQ(count(output, "returned"), reads ? 1 : 0) << output;
    }
}

}  // namespace
