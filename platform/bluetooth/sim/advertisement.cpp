// Advertisements: while a watcher listens, every peripheral is heard about every 20 ms. Names are in the scan
// responses, which an active scan asks for.
#include "platform/advertisement.h"

#include <algorithm>
#include <utility>

#include "bluetooth/callback_list.h"
#include "world.h"

namespace sim {

namespace {

using platform::AdvertisementReceivedEventArgs;
using Listeners = bluetooth::CallbackList<const AdvertisementReceivedEventArgs*>;

// One scan, from start to stop.
class Scan final : public ServiceThread {
  public:
    Scan(const World& world, platform::ScanningMode mode, std::shared_ptr<Listeners> listeners)
        : runtime_(world.runtime()),
          listeners_(std::move(listeners)),
          period_(std::max(1.0, 20 / world.scenario().timeScale.value_or(1))) {
        for (const auto& peripheral : world.peripherals()) {
            const auto& scenario = peripheral->scenario();
            const bool named = mode == platform::ScanningMode::active;
            const bool together = named && !scenario.nameApart;
            advertisements_.push_back(
                {scenario.address, scenario.advertises, together ? scenario.name : std::wstring()});
            if (named && !together) advertisements_.push_back({scenario.address, {}, scenario.name});
        }
    }

  private:
    void run() override {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            lock.unlock();
            for (const auto& advertisement : advertisements_) {
                if (runtime_->bluetoothOn()) listeners_->call(&advertisement);
            }
            lock.lock();
            wake_.wait_for(lock, period_, [this] { return stopping_; });
        }
    }

    const std::shared_ptr<WorldRuntime> runtime_;
    const std::shared_ptr<Listeners> listeners_;
    const std::chrono::duration<double, std::milli> period_;
    std::vector<AdvertisementReceivedEventArgs> advertisements_;
};

class Watcher final : public platform::AdvertisementWatcher {
  public:
    explicit Watcher(std::shared_ptr<World> world) : world_(std::move(world)) {}
    ~Watcher() override { stop(); }

    void setScanningMode(platform::ScanningMode mode) override { mode_ = mode; }

    platform::Subscription onReceived(ReceivedHandler handler) override {
        return addCallback(listeners_, std::move(handler));
    }

    void start() override {
        if (scan_) return;
        world_->scans.note(mode_);
        scan_ = std::make_shared<Scan>(*world_, mode_, listeners_);
        world_->runtime()->launch(scan_);
    }

    void stop() override {
        if (const auto scan = std::exchange(scan_, nullptr)) scan->finish();
    }

  private:
    const std::shared_ptr<World> world_;
    const std::shared_ptr<Listeners> listeners_ = std::make_shared<Listeners>();
    platform::ScanningMode mode_ = platform::ScanningMode::passive;
    std::shared_ptr<Scan> scan_;
};

}  // namespace

}  // namespace sim

namespace platform {

std::unique_ptr<AdvertisementWatcher> createAdvertisementWatcher() {
    return std::make_unique<sim::Watcher>(sim::requireWorld());
}

}  // namespace platform
