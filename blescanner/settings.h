// What the command line has set.
#pragma once

#include <string>

namespace blescanner {

// Written by the main thread before any other thread exists, read-only afterwards.
struct ProcessSettings {
    // The separator behind the point is doubled; the system takes the name all the same.
    std::wstring cmdPipeName = L"\\\\.\\\\pipe\\ZIQBLESh";
    std::wstring datPipeName = L"\\\\.\\\\pipe\\ZIQBLECOM";
    std::wstring logFileName = L"nul";
};

ProcessSettings& settings();

}  // namespace blescanner
