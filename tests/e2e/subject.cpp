#include "tests/e2e/subject.h"

#include <cstdlib>

namespace e2e {

std::string programUnderTest() {
    const char* const named = std::getenv("ZIQBLE_PROGRAM");
    return named && *named ? named : ZIQBLE_PROGRAM;
}

bool hasRealBluetoothSide() {
    return programUnderTest() != ZIQBLE_PROGRAM;
}

bool runsOnOlderSystem() {
    return programUnderTest().find("-older") != std::string::npos;
}

}  // namespace e2e
