// Switches the log off: with all inputs of a fuzzer it would be too long.
#pragma once

#include <loguru.hpp>

struct QuietLog {
    QuietLog() { loguru::g_stderr_verbosity = loguru::Verbosity_OFF; }
};
