// A record of all bytes that move over the data pipe, piece by piece: time, direction, payload.
#pragma once

#include <fstream>
#include <string>

#include "async.h"

namespace ziqble {

enum class Direction { fromPeripheral = 1, toPeripheral = 2 };  // the values of pcapng

class Trace {
  public:
    // A pcapng file for Wireshark, which can be read up to the last piece whatever becomes of this program;
    // "-": hexadecimal lines on standard error; empty: nothing. Throws Failure when the file cannot be
    // written.
    explicit Trace(const std::string& target);

    // A file that cannot be written any more is told of once; the bytes matter more than their trace.
    void record(Direction direction, ByteSpan bytes);

  private:
    bool hex_ = false;
    std::ofstream file_;
};

}  // namespace ziqble
