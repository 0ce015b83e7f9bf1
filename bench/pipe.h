// A client of a local pipe. Each host has its own implementation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

// Threads: one may read while another one writes. Errors are thrown as std::runtime_error.
class Pipe {
  public:
    // When no byte moves for this long, the measurement has failed.
    static constexpr int kStallSeconds = 10;

    // Waits until the pipe exists.
    explicit Pipe(const std::string& name);
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    // Returns the number of bytes read; 0 when the other side has closed the pipe. Throws when nothing comes.
    std::size_t readSome(std::span<std::uint8_t> buffer);
    // False when the other side has closed the pipe or takes nothing.
    bool writeAll(std::span<const std::uint8_t> bytes);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
