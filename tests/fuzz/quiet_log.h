// The program logs what it is fed; a fuzzer feeds too much of it.
#pragma once

#include <loguru.hpp>

struct QuietLog {
    QuietLog() { loguru::g_stderr_verbosity = loguru::Verbosity_OFF; }
};
