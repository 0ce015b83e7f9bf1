#include <array>
#include <chrono>
#include <loguru.hpp>
#include <vector>

#include "blehelper.h"
#include "detached_threads.h"
#include "platform/clock.h"

namespace blescanner {

using platform::Adapter;
using platform::SystemError;

std::atomic<bool> scanIntervalsConfigured = false;

namespace {

constexpr std::uint16_t kScanInterval = 29;  // in units of 0.625 ms, for the interval and the window
constexpr std::size_t kPlainReplySize = 40;
constexpr std::chrono::milliseconds kThreadStartTime{250};
constexpr std::chrono::seconds kSlowStartTime{5};

// A command of `size` bytes: the interval stands `fields` times in a row from `offset` on, the rest is zero.
struct CommandLayout {
    std::size_t size;
    std::size_t offset;
    std::size_t fields;
};
constexpr CommandLayout kPlainLayout{8, 4, 2};
constexpr CommandLayout k1809Layout{16, 8, 4};
constexpr CommandLayout k1903Layout{24, 8, 5};

std::vector<std::uint8_t> buildCommand(const CommandLayout& layout, std::uint16_t interval) {
    std::vector<std::uint8_t> command(layout.size, 0);
    for (std::size_t field = 0; field < layout.fields; ++field) {
        const std::size_t at = layout.offset + 2 * field;
        command[at] = static_cast<std::uint8_t>(interval & 0xFF);
        command[at + 1] = static_cast<std::uint8_t>(interval >> 8);
    }
    return command;
}

std::uint32_t applyWorkaround(Adapter& adapter, const char* generation, const CommandLayout& layout) {
    LOG_S(INFO) << "Trying out " << generation << " workaround";
    const SystemError error = adapter.scanCommand(buildCommand(layout, kScanInterval), {});
    if (error == SystemError::none) return 1;
    LOG_S(ERROR) << "[" << generation << "] error in INTERVAL _COMMAND code " << number(error);
    return number(error);
}

// A driver may take long to answer, so nobody waits for these threads before the program's end.
DetachedThreads& configThreads() {
    static DetachedThreads instance;
    return instance;
}

}  // namespace

bool setScanIntervals() {
    // A thread that an earlier call has started may still be about to set the flag.
    if (!scanIntervalsConfigured) waitForScanConfigThread(kSlowStartTime);
    if (scanIntervalsConfigured) return true;
    const platform::AdapterList list = platform::findAdapters();
    if (list.adapters.empty()) {
        LOG_S(ERROR) << "setScanInterval: Could not find BLE device to work with! " << number(list.error);
        return scanIntervalsConfigured;
    }
    LOG_S(INFO) << "setScanIntervals: Value " << kScanInterval;
    configThreads().start(
        [args = ScanConfigArgs{list.adapters.front(), kScanInterval}] { scanConfigThread(args); });
    platform::sleepFor(kThreadStartTime);
    return scanIntervalsConfigured;
}

void scanConfigThread(const ScanConfigArgs& args) {
    // Static because a driver that answers "pending" may still write to it after the thread has ended.
    static std::array<std::uint8_t, kPlainReplySize> reply;
    reply.fill(0);
    LOG_S(INFO) << "Applying scan intervals..." << kPlainLayout.size;
    scanIntervalsConfigured = true;
    const SystemError error = args.adapter->scanCommand(buildCommand(kPlainLayout, args.interval), reply);
    if (error == SystemError::ioPending) {
        LOG_S(INFO) << "Configured BLE scan interval!";
    } else if (error != SystemError::none) {
        LOG_S(WARNING) << "Could not configure BLE scan interval! " << number(error);
        // Deliberate: the result is not 0 after a success (1) either, so the 1903+ command follows in both
        // cases. A driver may accept the 1809+ layout without acting on it.
        if (applyScanWorkaround1809(*args.adapter) != 0) applyScanWorkaround1903(*args.adapter);
    }
    LOG_S(INFO) << "Scan config thread terminated...";
}

bool waitForScanConfigThread(std::chrono::milliseconds timeout) {
    return configThreads().wait(timeout);
}

std::uint32_t applyScanWorkaround1809(Adapter& adapter) {
    return applyWorkaround(adapter, "1809+", k1809Layout);
}
std::uint32_t applyScanWorkaround1903(Adapter& adapter) {
    return applyWorkaround(adapter, "1903+", k1903Layout);
}

}  // namespace blescanner
