// A simulated Windows Runtime: the world of a scenario file behind the real binary interface.
//
// The program's Windows back end turns interfaces into objects of platform/. The provider does the opposite:
// it shows the simulated objects of platform/ through the interfaces. ZIQBLE_SCENARIO names the scenario
// file, as for the simulated program. Its time scale speeds up the provider only; the program's own sleeps
// keep their length.
//
// The end of the process has two steps. When the program's main function has returned, the world ends and its
// summary is printed. At that time other threads still run, so this step may take locks. Live objects are
// counted when the system tells the library that the process ends. By then the program's last objects are
// gone, and all other threads were ended wherever they were, perhaps with a lock held. So this step takes no
// lock and no memory. Services, devices and sessions are looked at already in the first step, and before the
// program's static objects are gone: what is open by then has kept a peripheral connected for too long.
#include "tests/winrt_provider/provider.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/bluetooth/sim/world.h"
#include "platform/runtime.h"
#include "tests/winrt_provider/events.h"
#include "win32/system_function.h"

namespace provider {

namespace {

constexpr std::wstring_view kDeviceClass = L"Windows.Devices.Bluetooth.BluetoothLEDevice";

struct Class {
    std::wstring_view name;
    ComPtr<IActivationFactory> (*factory)();
};

constexpr std::array kClasses = {
    Class{L"Windows.Devices.Bluetooth.Advertisement.BluetoothLEAdvertisementWatcher",
          advertisementWatcherFactory},
    Class{kDeviceClass, bluetoothLEDeviceFactory},
    Class{L"Windows.Devices.Enumeration.DeviceInformation", deviceInformationFactory},
    Class{L"Windows.Devices.Radios.Radio", radioFactory},
    Class{L"Windows.Storage.Streams.DataReader", dataReaderFactory},
    Class{L"Windows.Storage.Streams.DataWriter", dataWriterFactory},
};

sim::WorldScope* world = nullptr;  // never destroyed: threads may have been ended in the middle of its calls

// Writes without the C library, which may have ended already.
void print(const char* text) noexcept {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(std::strlen(text)), &written,
                nullptr);
}

int endWorld() {
    world->world().end();
    endEventThreads();
    for (const auto& line : world->world().summary())
        print((line + "\n").c_str());
    return 0;
}

int reportOpenObjects() {
    const OpenObjects open = openObjects();
    if (open.services + open.devices + open.sessions == 0) return 0;
    std::array<char, 256> line{};
    std::snprintf(line.data(), line.size(), "winrt: not closed: %ld services %ld devices %ld sessions\n",
                  open.services, open.devices, open.sessions);
    print(line.data());
    return 0;
}

sim::Scenario configuredScenario() {
    const char* const file = std::getenv("ZIQBLE_SCENARIO");
    return file && *file ? sim::readScenario(file) : sim::Scenario();
}

// Registers the function with the C library itself, which calls the last one first. The usual way in a DLL
// would run it at the DLL's end, which is too late.
void atProgramEnd(int (*function)()) {
    using Register = decltype(function)(decltype(function));
    if (const auto enlist = platform::systemFunction<Register>(L"msvcrt.dll", "_onexit")) enlist(function);
}

void startWorld() {
    try {
        world = new sim::WorldScope(configuredScenario());
        // This reference is never released, so that the end of the library does not destroy the world.
        new std::shared_ptr<sim::World>(sim::currentWorld());
        atProgramEnd(endWorld);
    } catch (const platform::BluetoothConfigError& error) {
        print(("provider: " + std::string(error.what()) + "\n").c_str());
        throw;
    }
}

HRESULT factoryOf(std::wstring_view name, IActivationFactory** out) {
    static std::once_flag started;
    std::call_once(started, startWorld);
    static std::once_flag watched;
    if (name == kDeviceClass) std::call_once(watched, [] { atProgramEnd(reportOpenObjects); });
    for (const auto& item : kClasses) {
        if (item.name != name) continue;
        handOut(item.factory(), out);
        return S_OK;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

void reportLiveObjects() noexcept {
    long all = 0;
    for (auto* count = ObjectCount::first(); count; count = count->next)
        all += count->live;
    std::array<char, 256> line{};
    std::snprintf(line.data(), line.size(), "provider: live objects %ld\n", all);
    print(line.data());
    for (auto* count = ObjectCount::first(); count; count = count->next) {
        if (count->live == 0) continue;
        std::snprintf(line.data(), line.size(), "provider: %s %ld\n", count->className, count->live.load());
        print(line.data());
    }
}

}  // namespace

}  // namespace provider

extern "C" HRESULT WINAPI DllGetActivationFactory(HSTRING className, IActivationFactory** out) {
    *out = nullptr;
    HRESULT result = S_OK;
    const HRESULT thrown =
        provider::guarded([&] { result = provider::factoryOf(provider::textOf(className), out); });
    return FAILED(thrown) ? thrown : result;
}

extern "C" HRESULT WINAPI DllCanUnloadNow() {
    return S_FALSE;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* processEnds) {
    if (reason == DLL_PROCESS_DETACH && processEnds) provider::reportLiveObjects();
    return TRUE;
}
