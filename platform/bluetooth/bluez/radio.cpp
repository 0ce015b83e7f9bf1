#include "radio.h"

#include <fstream>
#include <loguru.hpp>
#include <system_error>

#include "advice.h"
#include "bus.h"
#include "error.h"
#include "platform/radio.h"
#include "platform/text.h"

namespace bluez {

namespace {

using platform::PlatformError;
using platform::RadioAccessStatus;
using platform::RadioList;
using platform::RadioState;

class AdapterRadio final : public platform::Radio {
  public:
    AdapterRadio(std::shared_ptr<Bus> bus, std::string path) : bus_(std::move(bus)), path_(std::move(path)) {}

    std::wstring name() const override {
        return platform::widen(
            bus_->objects().get<std::string>(path_, kAdapter, "Alias").value_or(adapterName(path_)));
    }

    platform::RadioKind kind() const override { return platform::RadioKind::bluetooth; }

    RadioState state() const override {
        const auto powered = bus_->objects().get<bool>(path_, kAdapter, "Powered");
        if (!powered) return RadioState::unknown;
        if (*powered) return RadioState::on;
        return isBlocked(kSysfsBluetooth, adapterName(path_)) ? RadioState::disabled : RadioState::off;
    }

    // Completes as soon as the request is sent. The caller watches the state.
    platform::AsyncOperationPtr<RadioAccessStatus> setStateAsync(RadioState state) override {
        return run([&] {
            bus_->send(
                {path_, "org.freedesktop.DBus.Properties", "Set"},
                [name = adapterName(path_)](const PlatformError* error) {
                    if (!error) return;
                    if (isBlocked(kSysfsBluetooth, name)) return advise(Trouble::adapterBlocked, name);
                    LOG_S(WARNING) << "[WARNING] Bluetooth: adapter " << name
                                   << " could not be switched: " << platform::printable(error->what());
                },
                kAdapter, "Powered", sdbus::Variant(state == RadioState::on));
            return RadioAccessStatus::allowed;
        });
    }

  private:
    const std::shared_ptr<Bus> bus_;
    const std::string path_;
};

RadioList listRadios() {
    RadioList radios(std::in_place);
    try {
        const auto bus = Bus::current();
        const auto paths = bus->objects().read([](const ObjectTree& tree) { return tree.paths(kAdapter); });
        for (const auto& path : paths) {
            radios->push_back(std::make_shared<AdapterRadio>(bus, path));
            if (radios->back()->state() == RadioState::disabled)
                advise(Trouble::adapterBlocked, adapterName(path));
        }
    } catch (const PlatformError& error) {
        // Without bluetoothd there is no radio. Without permission there may be one, and it may be on.
        if (error.code() == kAccessDenied) return std::nullopt;
        if (error.code() != platform::kRoEClosed) throw;
        return radios;
    }
    if (radios->empty()) advise(Trouble::noAdapter);
    return radios;
}

}  // namespace

std::string adapterName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// Read from the kernel's files: bluetoothd offers the property only when it is told to.
bool isBlocked(const std::filesystem::path& sysfs, const std::string& name) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(sysfs / name, ignored)) {
        if (!entry.path().filename().string().starts_with("rfkill")) continue;
        for (const char* const kind : {"soft", "hard"}) {
            std::ifstream file(entry.path() / kind);
            if (file.get() == '1') return true;
        }
    }
    return false;
}

void adviseOnAdapter(const Change& change) {
    if (change.interface != kAdapter) return;
    const std::string name = adapterName(change.path);
    if (change.kind == Change::Kind::removed) return advise(Trouble::adapterGone, name);
    const bool* const powered = change.get<bool>("Powered");
    if (change.kind != Change::Kind::changed || !powered || *powered) return;
    advise(isBlocked(kSysfsBluetooth, name) ? Trouble::adapterBlocked : Trouble::adapterOff, name);
}

}  // namespace bluez

namespace platform {

AsyncOperationPtr<RadioList> getRadiosAsync() {
    return bluez::run(bluez::listRadios);
}

}  // namespace platform
