// The requests that the test's radio driver, the stand-in for the Bluetooth library and the tests share.
// Include the system's headers before this one; the driver has other ones than the programs.
#pragma once

namespace wine_devices {

inline constexpr ULONG kMaxRadios = 3;
inline constexpr ULONG kMaxCommands = 3;

// Control codes that the program uses.
inline constexpr ULONG kGetLocalRadioInfo = 0x00410000;
inline constexpr ULONG kScanCommand = 0x0041118C;

// Input: an index (ULONG). From then on the open file belongs to that radio; fails when there is none.
inline constexpr ULONG kSelectRadio = 0x00222000;
// For the file of a radio. Output: its name, zero-terminated UTF-16.
inline constexpr ULONG kGetName = 0x00222004;
// Input: one RadioSetup for each radio. All commands are forgotten.
inline constexpr ULONG kSetUp = 0x00222008;
// Output: RadioReport[kMaxRadios].
inline constexpr ULONG kReport = 0x0022200C;

// Errors are Windows error numbers; 0: success.
struct RadioSetup {
    wchar_t name[16];
    ULONG nameError;
    ULONG infoError;
    ULONG commandErrors[kMaxCommands];
    UCHAR lmpVersion;
    UCHAR hciVersion;
};

struct RadioReport {
    LONG openFiles;  // Wine tells the driver only some time after a file was closed
    ULONG commandCount;
    struct {
        ULONG inputSize;
        ULONG outputSize;
        UCHAR input[24];
    } commands[kMaxCommands];
};

}  // namespace wine_devices
