// The adapters as the kernel knows them: bluetoothd tells no version.
#include "platform/adapter.h"

#include "management.h"
#include "platform/text.h"

namespace bluez {

namespace {

using platform::SystemError;

// Where the program looks for the version; here one number serves for both.
constexpr std::size_t kHciVersionAt = 278;
constexpr std::size_t kLmpVersionAt = 291;

class Controller final : public platform::Adapter {
  public:
    explicit Controller(std::uint16_t index) : index_(index) {}

    SystemError name(std::wstring& out) const override {
        ControllerInfo info;
        const SystemError error = readControllerInfo(index_, info);
        if (error != SystemError::none) return error;
        out = platform::widen(info.name.empty() ? "hci" + std::to_string(index_) : info.name);
        return SystemError::none;
    }

    SystemError localRadioInfo(platform::LocalRadioInfo& out) const override {
        ControllerInfo info;
        const SystemError error = readControllerInfo(index_, info);
        if (error != SystemError::none) return error;
        out.fill(0);
        out[kHciVersionAt] = info.version;
        out[kLmpVersionAt] = info.version;
        return SystemError::none;
    }

    // The command is for a driver of another system: bluetoothd chooses the timing of its scans.
    SystemError scanCommand(std::span<const std::uint8_t>, std::span<std::uint8_t>) override {
        return SystemError::none;
    }

  private:
    const std::uint16_t index_;
};

}  // namespace

}  // namespace bluez

namespace platform {

AdapterList findAdapters() {
    AdapterList list;
    std::vector<std::uint16_t> indices;
    list.error = bluez::readControllers(indices);
    for (const auto index : indices)
        list.adapters.push_back(std::make_shared<bluez::Controller>(index));
    if (list.error == SystemError::none && indices.empty()) list.error = SystemError::noMoreItems;
    return list;
}

}  // namespace platform
