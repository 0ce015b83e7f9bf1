// The Windows back end's adapters and drivers, and the parts of the program that use them. The system's calls
// end in this file, which takes the place of the imports. Like the system it refuses what is passed wrongly.
#include <windows.h>

#include <bluetoothapis.h>
#include <setupapi.h>

#include <bit>
#include <map>
#include <tuple>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/driver.h"
#include "sleep_recorder.h"

// Has to come after the system's headers.
#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

// Errors are Windows error numbers; 0: success.
struct Radio {
    std::wstring name;
    DWORD nameError = 0;
    DWORD infoError = 0;
    std::vector<DWORD> commandErrors = {};
    std::vector<Bytes> commands = {};          // that it got
    std::vector<std::size_t> replySizes = {};  // the room for each answer
};

struct Device {
    DWORD listError = 0;
    std::vector<platform::DriverInfo> drivers = {};
    bool listed = false;
};

// What the machine has, and what of it is open.
struct Machine {
    std::vector<Radio> radios;
    DWORD devicesError = 0;
    std::vector<Device> devices;
    int searches = 0;
    int deviceSets = 0;
    std::map<HANDLE, std::size_t> radioHandles;  // of open and of closed radios
};
Machine machine;

BOOL answer(DWORD error) {
    ::SetLastError(error);
    return error == 0;
}

// All handles of radios belong to one object, which is gone when the last one is closed.
std::wstring radioObject() {
    return L"ziqble radios of " + std::to_wstring(::GetCurrentProcessId());
}
bool radiosAreClosed() {
    return !::OpenEventW(SYNCHRONIZE, FALSE, radioObject().c_str());
}

BOOL openRadio(std::size_t index, HANDLE* radio) {
    if (index >= machine.radios.size()) return answer(ERROR_NO_MORE_ITEMS);
    *radio = ::CreateEventW(nullptr, TRUE, FALSE, radioObject().c_str());
    machine.radioHandles[*radio] = index;
    return TRUE;
}

// All bytes but the two versions depend on their place, so that a version read from a wrong place shows.
void giveInfo(std::span<std::uint8_t> reply) {
    for (std::size_t at = 0; at < reply.size(); ++at)
        reply[at] = static_cast<std::uint8_t>(at | 0x80);
    reply[278] = 200;
    reply[291] = 9;
}

BOOL WINAPI deviceIoControl(HANDLE handle, DWORD code, void* input, DWORD inputSize, void* output,
                            DWORD outputSize, DWORD* returned, OVERLAPPED* overlapped) {
    const auto found = machine.radioHandles.find(handle);
    if (found == machine.radioHandles.end() || !returned || overlapped)
        return answer(ERROR_INVALID_PARAMETER);
    Radio& radio = machine.radios[found->second];
    if (code == 0x00410000 && inputSize == 0 && outputSize == 292) {
        giveInfo({static_cast<std::uint8_t*>(output), outputSize});
        return answer(radio.infoError);
    }
    if (code != 0x0041118C) return answer(ERROR_INVALID_FUNCTION);
    const auto* const bytes = static_cast<const std::uint8_t*>(input);
    radio.commands.emplace_back(bytes, bytes + inputSize);
    radio.replySizes.push_back(outputSize);
    return answer(radio.commandErrors.at(radio.commands.size() - 1));
}

HDEVINFO WINAPI getClassDevs(const GUID* deviceClass, const wchar_t* enumerator, HWND, DWORD flags) {
    constexpr GUID kBluetooth = {
        0xE0CBF06C, 0xCD8B, 0x4647, {0xBB, 0x8A, 0x26, 0x3B, 0x43, 0xF0, 0xF9, 0x74}};
    const bool valid = *deviceClass == kBluetooth && !enumerator && flags == DIGCF_PRESENT;
    if (!answer(valid ? machine.devicesError : ERROR_INVALID_PARAMETER)) return INVALID_HANDLE_VALUE;
    ++machine.deviceSets;
    return &machine;
}

BOOL WINAPI destroyDeviceInfoList(HDEVINFO) {
    --machine.deviceSets;
    return TRUE;
}

BOOL WINAPI enumDeviceInfo(HDEVINFO set, DWORD index, SP_DEVINFO_DATA* device) {
    if (set != &machine || device->cbSize != sizeof *device) return answer(ERROR_INVALID_PARAMETER);
    if (index >= machine.devices.size()) return answer(ERROR_NO_MORE_ITEMS);
    device->DevInst = index;
    return TRUE;
}

BOOL WINAPI buildDriverInfoList(HDEVINFO set, SP_DEVINFO_DATA* info, DWORD type) {
    if (set != &machine || machine.deviceSets == 0 || type != SPDIT_COMPATDRIVER)
        return answer(ERROR_INVALID_PARAMETER);
    Device& device = machine.devices.at(info->DevInst);
    device.listed = device.listError == 0;
    return answer(device.listError);
}

BOOL WINAPI enumDriverInfo(HDEVINFO set, SP_DEVINFO_DATA* info, DWORD type, DWORD index,
                           SP_DRVINFO_DATA_W* out) {
    if (set != &machine || type != SPDIT_COMPATDRIVER || out->cbSize != sizeof(SP_DRVINFO_DATA_V2_W))
        return answer(ERROR_INVALID_PARAMETER);
    const Device& device = machine.devices.at(info->DevInst);
    if (!device.listed || index >= device.drivers.size()) return answer(ERROR_NO_MORE_ITEMS);
    const platform::DriverInfo& driver = device.drivers[index];
    driver.description.copy(out->Description, LINE_LEN);
    driver.manufacturer.copy(out->MfgName, LINE_LEN);
    driver.provider.copy(out->ProviderName, LINE_LEN);
    out->DriverDate = std::bit_cast<FILETIME>(driver.date.ticks);
    out->DriverVersion = driver.version;
    return TRUE;
}

}  // namespace

// bluetoothapis.h does not declare its functions as imports, so these are simply used in the place of the
// system's.
HBLUETOOTH_RADIO_FIND WINAPI BluetoothFindFirstRadio(BLUETOOTH_FIND_RADIO_PARAMS* parameters, HANDLE* radio) {
    if (parameters->dwSize != sizeof *parameters) return answer(ERROR_REVISION_MISMATCH), nullptr;
    if (!openRadio(0, radio)) return nullptr;
    ++machine.searches;
    return new std::size_t(0);
}
BOOL WINAPI BluetoothFindNextRadio(HBLUETOOTH_RADIO_FIND search, HANDLE* radio) {
    return openRadio(++*static_cast<std::size_t*>(search), radio);
}
BOOL WINAPI BluetoothFindRadioClose(HBLUETOOTH_RADIO_FIND search) {
    delete static_cast<std::size_t*>(search);
    --machine.searches;
    return TRUE;
}
DWORD WINAPI BluetoothGetRadioInfo(HANDLE handle, BLUETOOTH_RADIO_INFO* info) {
    if (info->dwSize != sizeof *info) return ERROR_REVISION_MISMATCH;
    const Radio& radio = machine.radios[machine.radioHandles.at(handle)];
    radio.name.copy(info->szName, BLUETOOTH_MAX_NAME_SIZE);
    return radio.nameError;
}

extern "C" {
decltype(&::DeviceIoControl) __imp_DeviceIoControl = &deviceIoControl;
decltype(&::SetupDiGetClassDevsW) __imp_SetupDiGetClassDevsW = &getClassDevs;
decltype(&::SetupDiDestroyDeviceInfoList) __imp_SetupDiDestroyDeviceInfoList = &destroyDeviceInfoList;
decltype(&::SetupDiEnumDeviceInfo) __imp_SetupDiEnumDeviceInfo = &enumDeviceInfo;
decltype(&::SetupDiBuildDriverInfoList) __imp_SetupDiBuildDriverInfoList = &buildDriverInfoList;
decltype(&::SetupDiEnumDriverInfoW) __imp_SetupDiEnumDriverInfoW = &enumDriverInfo;
}

namespace blescanner {
namespace {

using platform::SystemError;

class WindowsDevices : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_TRUE(radiosAreClosed());
        EXPECT_EQ(std::pair(machine.searches, machine.deviceSets), std::pair(0, 0));
        machine = {};
    }
    static void setIntervals() {
        scanIntervalsConfigured = false;
        const test::SleepRecorder recorder;
        setScanIntervals();
        EXPECT_TRUE(waitForScanConfigThread(std::chrono::seconds(20)));
    }
};

TEST_F(WindowsDevices, NamesAndVersionsOfTheRadiosThatAnswer) {
    const test::LogCapture log;
    std::vector<RadioVersionInfo> list;
    EXPECT_FALSE(enumerateRadioVersions(list));
    setIntervals();
    EXPECT_FALSE(scanIntervalsConfigured);
    EXPECT_TRUE(log.find("setScanInterval: Could not find BLE device to work with! 259"));

    machine.radios = {{L"K\u00FCche"}, {L"B", 31}, {L"C", 0, 5}};
    EXPECT_TRUE(enumerateRadioVersions(list));
    EXPECT_EQ(list, (std::vector<RadioVersionInfo>{{L"K\u00FCche", 9, 200}}));
    EXPECT_TRUE(log.find("getBLEProtocolSupport: Could not get Bluetooth name, using instance! 31"));
    EXPECT_TRUE(log.find("getBLEProtocolSupport: No LMP version read! 5"));
}

TEST_F(WindowsDevices, ScanCommands) {
    const Bytes plain = {0, 0, 0, 0, 29, 0, 29, 0};
    const Bytes for1809 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0};
    const Bytes for1903 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0, 29, 0, 0, 0, 0, 0, 0, 0};
    const std::tuple<std::vector<DWORD>, std::vector<Bytes>, std::string> cases[] = {
        {{0}, {plain}, "Scan config thread terminated..."},
        {{ERROR_IO_PENDING}, {plain}, "Configured BLE scan interval!"},
        {{87, 0, 5}, {plain, for1809, for1903}, "[1903+] error in INTERVAL _COMMAND code 5"},
    };
    for (const auto& [errors, commands, line] : cases) {
        machine.radios = {{L"A", 0, 0, errors}, {L"B"}};
        const test::LogCapture log;
        setIntervals();
        EXPECT_EQ(machine.radios[0].commands, commands);
        std::vector<std::size_t> replySizes(commands.size());
        replySizes[0] = 40;
        EXPECT_EQ(machine.radios[0].replySizes, replySizes);
        EXPECT_TRUE(log.find(line)) << line;
        EXPECT_TRUE(machine.radios[1].commands.empty());
    }
}

TEST_F(WindowsDevices, DriversOfEachDevice) {
    const platform::DriverInfo drivers[] = {
        {L"Old radio", L"M", L"P", {131'065'344'000'000'000}, 0x0001'0002'0003'0004},
        {L"K\u00FCche", L"N", L"Q", {7}, 0x000A'0000'4A61'FFFF},
    };
    machine.devices = {{0, {drivers[0], drivers[1]}}, {13}};
    const auto list = platform::bluetoothDriverDevices();
    ASSERT_EQ(list.devices.size(), 2U);
    EXPECT_EQ(list.devices[0]->buildCompatibleDriverList(), SystemError::none);
    platform::DriverInfo found;
    const auto fields = [](const platform::DriverInfo& info) {
        return std::tie(info.description, info.manufacturer, info.provider, info.date.ticks, info.version);
    };
    for (std::uint32_t index = 0; index < 2; ++index) {
        EXPECT_EQ(list.devices[0]->compatibleDriver(index, found), SystemError::none);
        EXPECT_EQ(fields(found), fields(drivers[index]));
    }
    EXPECT_EQ(list.devices[0]->compatibleDriver(2, found), SystemError::noMoreItems);
    EXPECT_EQ(list.devices[1]->buildCompatibleDriverList(), static_cast<SystemError>(13));
    machine.devicesError = 5;
    EXPECT_EQ(platform::bluetoothDriverDevices().error, static_cast<SystemError>(5));
}

}  // namespace
}  // namespace blescanner
