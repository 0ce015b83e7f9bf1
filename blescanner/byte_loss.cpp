#include "byte_loss.h"

#include <loguru.hpp>
#include <utility>

namespace blescanner {

namespace {

constexpr std::chrono::seconds kBetweenLines{1};

void tell(std::uint64_t bytes) {
    if (bytes > 0) LOG_S(WARNING) << "Data pipe: " << bytes << " bytes for the client given up";
}

}  // namespace

void ByteLoss::add(std::size_t bytes) {
    std::unique_lock lock(mutex_);
    untold_ += bytes;
    const auto now = Clock::now();
    if (told_ && now - *told_ < kBetweenLines) return;
    told_ = now;
    const std::uint64_t sum = std::exchange(untold_, 0);
    lock.unlock();
    tell(sum);
}

void ByteLoss::tellRest() {
    std::unique_lock lock(mutex_);
    const std::uint64_t sum = std::exchange(untold_, 0);
    lock.unlock();
    tell(sum);
}

}  // namespace blescanner
