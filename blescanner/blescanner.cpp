#include "blescanner.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <loguru.hpp>
#include <string_view>

#include "blehelper.h"
#include "cmdpipe.h"
#include "detached_threads.h"
#include "lecomm.h"
#include "log_writer.h"
#include "platform/runtime.h"
#include "platform/text.h"
#include "platform/version.h"
#include "platform_error_text.h"

namespace blescanner {

namespace {

constexpr const char* kVersion = ZIQBLE_VERSION;
// Whatever hangs, the program ends within 5 s of being asked to: half a second that "exit" takes, these two,
// and the time that the log's reader gets.
constexpr std::chrono::milliseconds kWindDownTime{1500};
constexpr std::chrono::milliseconds kCancelTime{100};
constexpr std::chrono::seconds kLastOutputTime{2};

LogWriter& standardOutput() {
    // Never destroyed: it may hang in a write, and detached threads may log until the process has gone.
    static LogWriter& writer = *new LogWriter(platform::writeStandardOutput);
    return writer;
}

void logToStandardOutput(void*, const loguru::Message& line) {
    print(std::string(line.preamble) + line.indentation + line.prefix + line.message + '\n');
}

// The log belongs on standard output, while the library's own console sink is standard error: off, before
// init writes anything to it. The library never sees the real arguments, and it keeps pointers into the ones
// that it gets.
void setUpLogging() {
    static char programName[] = "ZIQBLEConnect.exe";
    static char* arguments[] = {programName, nullptr};
    int argumentCount = 1;
    loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
    loguru::init(argumentCount, arguments);
    const char* const wanted = std::getenv("ZIQBLE_LOG_TIME");
    loguru::g_preamble_date = loguru::g_preamble_time = wanted && std::string_view(wanted) == "1";
    loguru::g_preamble_uptime = false;
    loguru::g_preamble_thread = false;
    loguru::add_callback("stdout", logToStandardOutput, nullptr, loguru::Verbosity_INFO);
}

// The warning names v1607 and the test is for v1703: users look for this text, so it stays.
void logBanner() {
    LOG_S(INFO) << "ZIQBLEConnect " << kVersion;
    LOG_S(INFO) << "Build " << __DATE__ << " " << __TIME__;
    LOG_S(INFO) << "Version check: Windows " << platform::toUtf8(windowsVersionText());
    if (isOlderThanThresholdBuild()) {
        LOG_S(WARNING) << "[WARNING] It is recommended to use Windows 10 v1607 or later!";
    }
}

void shellThread() {
    constexpr const char* kFatal = "Unknown exception in shell thread!";
    try {
        LOG_S(INFO) << "Starting shell pipe...";
        runShellSession();
        LOG_S(INFO) << "Shell pipe terminated...";
    } catch (const platform::PlatformError& error) {
        LOG_S(ERROR) << kFatal;
        LOG_S(ERROR) << describe(error);
    } catch (const std::exception& error) {
        LOG_S(ERROR) << kFatal;
        LOG_S(ERROR) << platform::printable(error.what());
    } catch (...) {
        LOG_S(ERROR) << kFatal;
    }
}

DetachedThreads& shellThreads() {
    static DetachedThreads instance;
    return instance;
}

// Until the shell has ended or the program is asked to stop, whichever comes first.
void runShell() {
    shellThreads().start([] {
        shellThread();
        platform::requestStop();  // what is still winding down has nothing more to wait for
    });
    platform::Event* const events[] = {&platform::stopRequested()};
    while (!platform::waitAny(events, std::chrono::hours(24))) {
    }
}

// A Bluetooth call that hangs does not hold the program: what makes such calls runs on detached threads.
void windDown() {
    const auto end = std::chrono::steady_clock::now() + kWindDownTime;
    const auto left = [end] {
        const auto now = std::chrono::steady_clock::now();
        return std::chrono::ceil<std::chrono::milliseconds>(std::max(end - now, {}));
    };
    if (!shellThreads().wait(left())) {
        LOG_S(WARNING) << "[WARNING] A Bluetooth call of the shell has not come back!";
        stopLink(*currentTioContext());
    }
    if (!waitForScanConfigThread(left())) {
        LOG_S(WARNING) << "[WARNING] The adapter's driver has not answered a scan command!";
    }
    if (!waitForLinkSessions(left())) {
        LOG_S(WARNING)
            << "[WARNING] A Bluetooth call of the link session has not come back, it is cancelled!";
    }
}

// The end of the Bluetooth runtime calls back whatever a thread may still be waiting for.
void runBridge(const std::vector<std::string>& arguments) {
    const platform::BluetoothRuntime bluetooth;
    logBanner();
    setUpOptions(arguments);
    runShell();
    windDown();
    LOG_S(INFO) << "Goodbye!";
}

// A thread that outlives even the cancelling of its call hangs in the system: then the process goes without
// destroying anything under it.
void endProcessUnderHangingCall() {
    if (shellThreads().wait(kCancelTime) && waitForLinkSessions(kCancelTime) &&
        waitForScanConfigThread(kCancelTime)) {
        return;
    }
    loguru::flush();
    finishOutput();
    platform::endProcess(0);
}

}  // namespace

// Narrow throughout, also for texts that are wide in the program: a stream of a POSIX host is either narrow
// or wide for its whole life, and wide output in the C locale ends at the first character beyond ASCII.
void print(std::string_view utf8) {
    standardOutput().push(utf8);
}

bool finishOutput() {
    return standardOutput().drain(kLastOutputTime);
}

bool isOlderThanThresholdBuild() {
    const platform::OsVersion version = platform::osVersion();
    if (version.major < 10) return true;
    if (version.major > 10 || version.minor != 0) return false;
    return version.build < 15063;
}

std::wstring windowsVersionText() {
    const platform::OsVersion version = platform::osVersion();
    return std::to_wstring(version.major) + L'.' + std::to_wstring(version.minor) + L'.' +
           std::to_wstring(version.build);
}

int runProgram(const std::vector<std::string>& arguments) {
    // Before the host: a logging library may set signal handlers of its own, and the host's have to stay.
    setUpLogging();
    const platform::HostRuntime host;
    if (!host.ready()) return 0;
    int exitCode = 0;
    try {
        runBridge(arguments);
    } catch (const platform::BluetoothConfigError& error) {
        std::fprintf(stderr, "ZIQBLEConnect: %s\n", error.what());
        exitCode = 2;
    } catch (const std::exception& error) {
        print(platform::printable(*error.what() ? error.what() : "Unknown exception") + '\n');
    } catch (...) {
        print("Unknown exception in main! Terminating application...\n");
    }
    endProcessUnderHangingCall();
    loguru::remove_all_callbacks();
    if (!finishOutput()) platform::endProcess(exitCode);  // an orderly end would wait for the stream
    return exitCode;
}

}  // namespace blescanner
