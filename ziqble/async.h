// What all coroutines share. They run on the one thread that runs the io_context.
#pragma once

#include <asio/experimental/awaitable_operators.hpp>
#include <asio/io_context.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <optional>
#include <span>

namespace ziqble {

template <class T = void>
using Awaitable = asio::awaitable<T>;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using ByteSpan = std::span<const std::uint8_t>;
using namespace std::chrono_literals;

inline constexpr Clock::time_point kNever = Clock::time_point::max();

inline Clock::time_point in(Seconds time) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
}

// For an operation that reports its error instead of throwing it.
inline auto into(asio::error_code& error) {
    return asio::redirect_error(asio::use_awaitable, error);
}

inline Awaitable<> sleepUntil(Clock::time_point time) {
    asio::steady_timer timer(co_await asio::this_coro::executor, time);
    co_await timer.async_wait(asio::use_awaitable);
}

inline Awaitable<> sleepFor(Seconds time) {
    co_await sleepUntil(in(time));
}

// Notes how the work ended if it is the first to end; a null pointer: without an exception.
inline Awaitable<> noteEnd(Awaitable<> work, std::optional<std::exception_ptr>& first) {
    std::exception_ptr failure;
    try {
        co_await std::move(work);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!first) first = failure;
}

// Runs both until one of them ends, by an exception or without; the other one is cancelled then.
inline Awaitable<> race(Awaitable<> one, Awaitable<> other) {
    using namespace asio::experimental::awaitable_operators;
    std::optional<std::exception_ptr> first;
    co_await (noteEnd(std::move(one), first) || noteEnd(std::move(other), first));
    if (*first) std::rethrow_exception(*first);
}

// A queue from which one coroutine at a time takes.
template <class T>
class Mailbox {
  public:
    explicit Mailbox(const asio::any_io_executor& executor) : arrival_(executor) {}

    void put(T item) {
        items_.push_back(std::move(item));
        arrival_.cancel();
    }
    // Nothing more will come; what has come can still be taken.
    void close() {
        closed_ = true;
        arrival_.cancel();
    }
    void clear() { items_.clear(); }
    bool closed() const { return closed_; }

    // Nothing: the time is over, or the mailbox is closed and empty.
    Awaitable<std::optional<T>> take(Clock::time_point deadline = kNever) {
        while (items_.empty() && !closed_ && Clock::now() < deadline) {
            asio::error_code cancelled;
            arrival_.expires_at(deadline);
            co_await arrival_.async_wait(into(cancelled));
        }
        if (items_.empty()) co_return std::nullopt;
        std::optional<T> item(std::move(items_.front()));
        items_.pop_front();
        co_return item;
    }

  private:
    std::deque<T> items_;
    bool closed_ = false;
    asio::steady_timer arrival_;
};

}  // namespace ziqble
