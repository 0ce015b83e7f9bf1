// A queue of packets in one block of memory that grows and never shrinks: no allocation per packet once it is
// warm.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

namespace sim {

// Not thread-safe.
class RecordRing {
  public:
    bool empty() const { return used_ == 0; }
    // Of all packets together.
    std::size_t payloadBytes() const { return payloadBytes_; }

    void push(std::span<const std::uint8_t> payload, std::uint32_t tag = 0) {
        const std::array<std::uint32_t, 2> header = {static_cast<std::uint32_t>(payload.size()), tag};
        reserve(sizeof header + payload.size());
        put(header.data(), sizeof header);
        put(payload.data(), payload.size());
        payloadBytes_ += payload.size();
    }

    // Returns the tag. Only when not empty.
    std::uint32_t pop(std::vector<std::uint8_t>& payload) {
        std::array<std::uint32_t, 2> header{};
        take(header.data(), sizeof header);
        payload.resize(header[0]);
        take(payload.data(), payload.size());
        payloadBytes_ -= payload.size();
        return header[1];
    }

    void clear() { head_ = used_ = payloadBytes_ = 0; }

  private:
    static constexpr std::size_t kFirstSize = 4096;

    void reserve(std::size_t more) {
        if (used_ + more <= memory_.size()) return;
        std::vector<std::uint8_t> larger(std::max({kFirstSize, memory_.size() * 2, used_ + more}));
        const std::size_t used = used_;
        take(larger.data(), used);
        memory_ = std::move(larger);
        head_ = 0;
        used_ = used;
    }

    void put(const void* from, std::size_t size) {
        if (size == 0) return;
        const std::size_t start = (head_ + used_) % memory_.size();
        const std::size_t first = std::min(size, memory_.size() - start);
        std::memcpy(memory_.data() + start, from, first);
        if (first != size)
            std::memcpy(memory_.data(), static_cast<const std::uint8_t*>(from) + first, size - first);
        used_ += size;
    }

    void take(void* to, std::size_t size) {
        if (size == 0) return;
        const std::size_t first = std::min(size, memory_.size() - head_);
        std::memcpy(to, memory_.data() + head_, first);
        if (first != size) std::memcpy(static_cast<std::uint8_t*>(to) + first, memory_.data(), size - first);
        head_ = (head_ + size) % memory_.size();
        used_ -= size;
    }

    std::vector<std::uint8_t> memory_;
    std::size_t head_ = 0;
    std::size_t used_ = 0;
    std::size_t payloadBytes_ = 0;
};

}  // namespace sim
