#include "byte_loss.h"

#include <loguru.hpp>
#include <utility>

namespace blescanner {

void ByteLoss::tell(std::uint64_t more, std::chrono::seconds pause) {
    std::unique_lock lock(mutex_);
    untold_ += more;
    const auto now = Clock::now();
    if (untold_ == 0 || now - pause < told_) return;
    told_ = now;
    const std::uint64_t bytes = std::exchange(untold_, 0);
    lock.unlock();
    LOG_S(WARNING) << "Data pipe: " << bytes << " bytes for the client given up";
}

}  // namespace blescanner
