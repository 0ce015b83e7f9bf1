// A client of a local pipe. One header, one implementation per host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

// Of two threads one may read while the other one writes. Throws std::runtime_error.
class Pipe {
  public:
    // Nothing moved for so long: the measurement has failed.
    static constexpr int kStallSeconds = 10;

    // Waits for the pipe to be there.
    explicit Pipe(const std::string& name);
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    // 0: the other side has closed the pipe. Throws when nothing comes.
    std::size_t readSome(std::span<std::uint8_t> buffer);
    // False: the other side has closed the pipe, or takes nothing.
    bool writeAll(std::span<const std::uint8_t> bytes);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
