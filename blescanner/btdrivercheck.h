// Lists the drivers of the machine's Bluetooth devices in the log and warns of old and of known problematic
// ones.
#pragma once

#include <functional>
#include <map>
#include <string>

namespace blescanner {

// "manufacturer#version" to the text that ends the warning.
using DriversDb = std::map<std::wstring, std::wstring>;
using DriversDbSource = std::function<const DriversDb&()>;

// Reads the lines of a reference file (docs/drivers-db.md). Of several lines for one driver the last one
// wins, so that a correction can be appended. Lines that are no records are skipped silently; lines that are
// not UTF-8 are skipped with a warning that names the file.
DriversDb parseDriversDb(const std::string& bytes, const std::string& fileName);

// The reference file of this installation; empty when it is missing, cannot be read, or its folder is
// not known.
DriversDb readDriversDb();

// Only logs. Any thread. The reference file is read once per process, when the first look-up is due.
void checkBluetoothDrivers();

// The same with other reference data, which are asked for only when a look-up is due.
void checkBluetoothDrivers(const DriversDbSource& driversDb);

}  // namespace blescanner
