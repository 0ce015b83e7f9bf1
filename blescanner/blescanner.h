// Start-up and shutdown of the program, its command line and the version rule.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace blescanner {

// Reads the arguments (UTF-8, without the program's name) into the settings; prints help and stray arguments.
// Throws std::invalid_argument when an option lacks its value.
void setUpOptions(const std::vector<std::string>& arguments);

// Older than Windows 10 build 15063: the one threshold between the two generations of GATT calls. Asks the
// system anew at each call; any thread.
bool isOlderThanThresholdBuild();

// For example "10.0.19041". Any thread.
std::wstring windowsVersionText();

// Writes to standard output, in the order of the calls and without waiting for its reader. Any thread.
void print(std::string_view utf8);

// Waits until all that was printed and logged is written. False: standard output did not take it in time. A
// thread then hangs in the output stream and holds its lock: the process may end by platform::endProcess
// only.
bool finishOutput();

// The whole program, from start-up to "Goodbye!". Once, on the main thread. Returns the exit code: 0, or 2
// when the Bluetooth side rejects its configuration.
int runProgram(const std::vector<std::string>& arguments);

}  // namespace blescanner
