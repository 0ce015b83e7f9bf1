#include <cstdint>
#include <stdexcept>
#include <string>

#include "blescanner/lecomm.h"

// An accepted text must give an address of 48 bits.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
    const std::wstring narrow(data, data + size);
    for (const std::wstring& candidate : {text, narrow}) {
        try {
            if (blescanner::parseBleAddress(candidate) >> 48 != 0) __builtin_trap();
        } catch (const std::runtime_error&) {
        }
    }
    return 0;
}
