// What the radio driver for tests, the Bluetooth library in front of it and the tests tell one another. The
// system's headers, which are not the same for the driver, come before.
#pragma once

namespace wine_devices {

inline constexpr ULONG kMaxRadios = 3;
inline constexpr ULONG kMaxCommands = 3;

// The program's control codes.
inline constexpr ULONG kGetLocalRadioInfo = 0x00410000;
inline constexpr ULONG kScanCommand = 0x0041118C;

// In: an index (ULONG). Makes the open file that radio's; fails when there is none.
inline constexpr ULONG kSelectRadio = 0x00222000;
// Of a radio. Out: its name, zero-terminated UTF-16.
inline constexpr ULONG kGetName = 0x00222004;
// In: one RadioSetup for each radio that there shall be. All commands are forgotten.
inline constexpr ULONG kSetUp = 0x00222008;
// Out: RadioReport[kMaxRadios].
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
    LONG openFiles;  // Wine tells the driver of a closed one some time later
    ULONG commandCount;
    struct {
        ULONG inputSize;
        ULONG outputSize;
        UCHAR input[24];
    } commands[kMaxCommands];
};

}  // namespace wine_devices
