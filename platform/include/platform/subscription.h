// The hold on an event registration.
#pragma once

#include <functional>
#include <utility>

namespace platform {

// Ends the registration when destroyed or reset; when that returns, the callback does not run and will not
// run again. So never destroy one from inside its own callback, nor while holding a lock that the callback
// takes. Movable, empty after a move. The backend gives the function that ends it.
class Subscription {
  public:
    Subscription() = default;
    explicit Subscription(std::function<void()> end) : end_(std::move(end)) {}
    Subscription(Subscription&& other) noexcept : end_(std::exchange(other.end_, nullptr)) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this == &other) return *this;
        reset();
        end_ = std::exchange(other.end_, nullptr);
        return *this;
    }
    ~Subscription() { reset(); }

    void reset() noexcept {
        if (auto end = std::exchange(end_, nullptr)) end();
    }

  private:
    std::function<void()> end_;
};

}  // namespace platform
