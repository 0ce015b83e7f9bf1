#include "tests/wine_devices/test_devices.h"

#include <fstream>
#include <stdexcept>

#include "platform/runtime.h"
#include "tests/e2e/harness.h"

namespace wine_devices {

namespace {

constexpr wchar_t kService[] = L"ZiqbleRadios";
constexpr wchar_t kHardwareIds[] = L"ZIQBLE\\Radio\0";
constexpr GUID kBluetoothClass = {
    0xE0CBF06C, 0xCD8B, 0x4647, {0xBB, 0x8A, 0x26, 0x3B, 0x43, 0xF0, 0xF9, 0x74}};

void require(bool succeeded, const char* call) {
    if (!succeeded) throw std::runtime_error(call + (" failed: " + std::to_string(::GetLastError())));
}

// Tries again while Wine starts its own services, because the list of services is locked meanwhile.
bool start(SC_HANDLE service) {
    for (const auto end = std::chrono::steady_clock::now() + e2e::kDeadline;
         !::StartServiceW(service, 0, nullptr); ::Sleep(10)) {
        if (::GetLastError() != ERROR_SERVICE_DATABASE_LOCKED || std::chrono::steady_clock::now() > end)
            return false;
    }
    return true;
}

void unloadAndClose(SC_HANDLE service) {
    SERVICE_STATUS status{};
    ::ControlService(service, SERVICE_CONTROL_STOP, &status);
    ::DeleteService(service);
    ::CloseServiceHandle(service);
}

std::string setupFileText(const DriverPackage& package) {
    const auto& date = package.date;
    const auto& version = package.version;
    std::string numbers = std::to_string(date.wMonth) + "/" + std::to_string(date.wDay) + "/" +
                          std::to_string(date.wYear) + "," + std::to_string(version[0]);
    for (const unsigned part : {version[1], version[2], version[3]})
        numbers += "." + std::to_string(part);
    return "[Version]\nSignature=\"$WINDOWS NT$\"\nClass=Bluetooth\n"
           "ClassGuid={E0CBF06C-CD8B-4647-BB8A-263B43F0F974}\nProvider=\"" +
           package.provider + "\"\nDriverVer=" + numbers + "\n[Manufacturer]\n\"" + package.manufacturer +
           "\"=Models,NTamd64\n[Models.NTamd64]\n\"" + package.description +
           "\"=Install,ZIQBLE\\Radio\n[Install]\n";
}

}  // namespace

RadioDriver::RadioDriver() : manager_(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
    require(manager_, "OpenSCManager");
    // A run that was killed may have left the driver behind.
    if (const SC_HANDLE old = ::OpenServiceW(manager_, kService, SERVICE_ALL_ACCESS)) unloadAndClose(old);
    const auto file = platform::executableDirectory() / "radio_driver.sys";
    service_ = ::CreateServiceW(manager_, kService, nullptr, SERVICE_ALL_ACCESS, SERVICE_KERNEL_DRIVER,
                                SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, file.c_str(), nullptr, nullptr,
                                nullptr, nullptr, nullptr);
    require(service_, "CreateService");
    require(start(service_), "StartService");
    control_ = ::CreateFileW(L"\\\\.\\ZiqbleRadios", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             0, nullptr);
    require(control_ != INVALID_HANDLE_VALUE, "CreateFile");
}

RadioDriver::~RadioDriver() {
    ::CloseHandle(control_);
    unloadAndClose(service_);
    ::CloseServiceHandle(manager_);
}

void RadioDriver::setUp(std::vector<RadioSetup> radios) const {
    DWORD size = 0;
    require(
        ::DeviceIoControl(control_, kSetUp, radios.data(),
                          static_cast<DWORD>(radios.size() * sizeof radios[0]), nullptr, 0, &size, nullptr),
        "DeviceIoControl");
}

std::array<RadioReport, kMaxRadios> RadioDriver::reports() const {
    std::array<RadioReport, kMaxRadios> reports{};
    DWORD size = 0;
    require(::DeviceIoControl(control_, kReport, nullptr, 0, reports.data(), sizeof reports, &size, nullptr),
            "DeviceIoControl");
    return reports;
}

BluetoothDevice::BluetoothDevice(std::span<const DriverPackage> packages)
    : set_(::SetupDiCreateDeviceInfoList(&kBluetoothClass, nullptr)) {
    wchar_t windows[MAX_PATH]{};
    ::GetWindowsDirectoryW(windows, MAX_PATH);
    for (const auto& package : packages) {
        const auto name = "ziqble" + std::to_string(setupFiles_.size()) + ".inf";
        setupFiles_.push_back(std::filesystem::path(windows) / "inf" / name);
        std::ofstream(setupFiles_.back()) << setupFileText(package);
    }
    // A run that was killed may have left the device behind.
    constexpr wchar_t kId[] = L"ROOT\\ZIQBLE\\0000";
    require(::SetupDiOpenDeviceInfoW(set_, kId, nullptr, 0, &device_) ||
                ::SetupDiCreateDeviceInfoW(set_, kId, &kBluetoothClass, nullptr, nullptr, 0, &device_),
            "SetupDiCreateDeviceInfo");
    require(
        ::SetupDiSetDeviceRegistryPropertyW(set_, &device_, SPDRP_HARDWAREID,
                                            reinterpret_cast<const BYTE*>(kHardwareIds), sizeof kHardwareIds),
        "SetupDiSetDeviceRegistryProperty");
    require(::SetupDiRegisterDeviceInfo(set_, &device_, 0, nullptr, nullptr, nullptr),
            "SetupDiRegisterDeviceInfo");
}

BluetoothDevice::~BluetoothDevice() {
    ::SetupDiRemoveDevice(set_, &device_);
    ::SetupDiDestroyDeviceInfoList(set_);
    for (const auto& file : setupFiles_)
        std::filesystem::remove(file);
}

}  // namespace wine_devices
