// What an adapter's switch stands at.
#pragma once

#include <filesystem>
#include <string>

#include "objects.h"

namespace bluez {

inline constexpr const char* kSysfsBluetooth = "/sys/class/bluetooth";

// The kernel's name of the adapter: the end of its path.
std::string adapterName(const std::string& path);

// Whether a switch of the machine, of hardware or of software, holds the adapter off.
bool isBlocked(const std::filesystem::path& sysfs, const std::string& name);

// Tells the person in front of the machine of an adapter that was switched off or taken away.
void adviseOnAdapter(const Change& change);

}  // namespace bluez
