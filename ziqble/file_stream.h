// Files and standard streams for coroutines. Another thread makes the calls, as they block and on some
// systems cannot be waited for together with others.
#pragma once

#include <memory>
#include <vector>

#include "context.h"

namespace ziqble {

class FileStream {
  public:
    enum class Mode { read, write };

    // Standard input or output without a path. A file is opened by the first call.
    FileStream(Context& context, const std::string& path, Mode mode);

    // Empty: the end. What comes in after a read was cancelled is for the next one. Throws Failure.
    Awaitable<std::vector<std::uint8_t>> read();
    // Throws Failure, for instance when nobody takes the bytes, or the disk is full.
    Awaitable<> write(ByteSpan bytes);

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace ziqble
