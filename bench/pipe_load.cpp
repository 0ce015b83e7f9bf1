// The client of a measurement, and the stand-in for the peripheral at the far end of a plain relay:
//   pipe_load send|recv|echo|rtt PATH SECONDS
//   pipe_load sink|source|far-echo PATH [INTERVAL_US PACKETS]
// The modes of the first line are the client: it moves blocks of 2048 bytes, or 20 bytes to and fro (rtt).
// Those of the second line are the stand-in: it moves packets of at most 244 bytes, and at most PACKETS of
// them in an interval when one is given. The result is printed as a line of JSON; times are seconds of the
// monotonic clock. After that the client keeps its pipe open until standard input ends, so that everything it
// sent can arrive.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <span>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "pipe.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::span<std::uint8_t>;

constexpr std::size_t kBlock = 2048;
constexpr std::size_t kPacket = 244;
constexpr std::size_t kSmall = 20;

double now() {
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

bool readAll(Pipe& pipe, Bytes buffer) {
    while (!buffer.empty()) {
        const std::size_t count = pipe.readSome(buffer);
        if (count == 0) return false;
        buffer = buffer.subspan(count);
    }
    return true;
}

// Pseudo-random bytes, the same for the sender and for the one that compares. They repeat after a prime
// number of bytes, so that a lost block never has just that length.
class Stream {
  public:
    void fill(Bytes bytes) {
        while (!bytes.empty()) {
            const std::size_t count = std::min(bytes.size(), table().size() - at_);
            std::memcpy(bytes.data(), table().data() + at_, count);
            at_ = (at_ + count) % table().size();
            bytes = bytes.subspan(count);
        }
    }

  private:
    static const std::vector<std::uint8_t>& table() {
        static const std::vector<std::uint8_t> bytes = [] {
            std::vector<std::uint8_t> made(1'000'003);
            std::mt19937 random;
            for (std::uint8_t& byte : made)
                byte = static_cast<std::uint8_t>(random());
            return made;
        }();
        return bytes;
    }

    std::size_t at_ = 0;
};

// Lets `packets` packets pass in each interval; 0: any number.
class Pacer {
  public:
    Pacer(std::chrono::microseconds interval, int packets) : interval_(interval), packets_(packets) {}

    void packet() {
        if (packets_ == 0 || ++used_ <= packets_) return;
        slot_ = std::max(slot_ + interval_, Clock::now() - interval_);
        std::this_thread::sleep_until(slot_);
        used_ = 1;
    }

  private:
    Clock::duration interval_;
    int packets_;
    int used_ = 0;
    Clock::time_point slot_ = Clock::now();
};

void send(Pipe& pipe, double seconds) {
    std::array<std::uint8_t, kBlock> block;
    Stream stream;
    std::uint64_t sent = 0;
    const double start = now();
    while (now() < start + seconds) {
        stream.fill(block);
        if (!pipe.writeAll(block)) throw std::runtime_error("the pipe was closed");
        sent += block.size();
    }
    std::printf("{\"sent\": %ju, \"start\": %.6f, \"end\": %.6f}\n", std::uintmax_t{sent}, start, now());
}

void recv(Pipe& pipe, double seconds) {
    std::array<std::uint8_t, kBlock> block;
    pipe.readSome(block);
    std::uint64_t received = 0;
    const double start = now();
    while (now() < start + seconds)
        received += pipe.readSome(block);
    std::printf("{\"received\": %ju, \"start\": %.6f, \"end\": %.6f}\n", std::uintmax_t{received}, start,
                now());
}

// Sends for so many seconds and compares what comes back; ends when everything has come back.
void echo(Pipe& pipe, double seconds) {
    std::atomic<std::uint64_t> sent = 0;
    std::atomic<bool> sending = true;
    const double start = now();
    std::jthread sender([&](const std::stop_token& stop) {
        std::array<std::uint8_t, kBlock> block;
        Stream stream;
        while (!stop.stop_requested() && now() < start + seconds) {
            stream.fill(block);
            sent += block.size();
            if (!pipe.writeAll(block)) break;
        }
        sending = false;
    });

    std::array<std::uint8_t, kBlock> block;
    std::array<std::uint8_t, kBlock> expected;
    Stream stream;
    std::uint64_t received = 0;
    bool same = true;
    while (same && (sending || received < sent)) {
        const std::size_t count = pipe.readSome(block);
        if (count == 0) break;
        const Bytes wanted = Bytes(expected).first(count);
        stream.fill(wanted);
        same = std::equal(wanted.begin(), wanted.end(), block.begin());
        received += count;
    }
    std::printf("{\"sent\": %ju, \"received\": %ju, \"same\": %s, \"start\": %.6f, \"end\": %.6f}\n",
                std::uintmax_t{sent}, std::uintmax_t{received}, same ? "true" : "false", start, now());
}

void rtt(Pipe& pipe, double seconds) {
    std::array<std::uint8_t, kSmall> out;
    std::array<std::uint8_t, kSmall> in;
    Stream stream;
    std::vector<double> times;
    const double start = now();
    do {
        stream.fill(out);
        const double sent = now();
        if (!pipe.writeAll(out) || !readAll(pipe, in)) throw std::runtime_error("the pipe was closed");
        times.push_back(now() - sent);
        if (in != out) throw std::runtime_error("the echo differs");
    } while (now() < start + seconds);
    std::sort(times.begin(), times.end());
    const auto at = [&](double part) {
        return times[static_cast<std::size_t>(part * double(times.size() - 1))];
    };
    std::printf("{\"count\": %zu, \"p50\": %.9f, \"p99\": %.9f}\n", times.size(), at(0.5), at(0.99));
}

void sink(Pipe& pipe, Pacer pacer) {
    std::array<std::uint8_t, kPacket> packet;
    std::uint64_t received = 0;
    double last = now();
    while (const std::size_t count = pipe.readSome(packet)) {
        received += count;
        last = now();
        pacer.packet();
    }
    std::printf("{\"received\": %ju, \"end\": %.6f}\n", std::uintmax_t{received}, last);
}

void source(Pipe& pipe, Pacer pacer) {
    std::array<std::uint8_t, kPacket> packet;
    Stream stream;
    do {
        stream.fill(packet);
        pacer.packet();
    } while (pipe.writeAll(packet));
}

void farEcho(Pipe& pipe, Pacer pacer) {
    std::array<std::uint8_t, kPacket> packet;
    while (const std::size_t count = pipe.readSome(packet)) {
        pacer.packet();
        if (!pipe.writeAll(Bytes(packet).first(count))) return;
    }
}

void waitForEndOfInput() {
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

void runFarSide(const std::string& mode, Pipe& pipe, std::span<char*> pace) {
    const Pacer pacer(std::chrono::microseconds(pace.size() == 2 ? std::stoi(pace[0]) : 0),
                      pace.size() == 2 ? std::stoi(pace[1]) : 0);
    if (mode == "sink") return sink(pipe, pacer);
    if (mode == "source") return source(pipe, pacer);
    if (mode == "far-echo") return farEcho(pipe, pacer);
    throw std::runtime_error("unknown mode: " + mode);
}

void run(std::span<char*> arguments) {
    using Client = void (*)(Pipe&, double);
    const std::map<std::string, Client> clients = {
        {"send", send}, {"recv", recv}, {"echo", echo}, {"rtt", rtt}};
    if (arguments.size() < 2)
        throw std::runtime_error("usage: pipe_load MODE PATH [SECONDS | INTERVAL_US PACKETS]");
    const std::string mode = arguments[0];
    Pipe pipe(arguments[1]);
    const auto client = clients.find(mode);
    if (client == clients.end()) return runFarSide(mode, pipe, arguments.subspan(2));
    client->second(pipe, std::stod(arguments.size() > 2 ? arguments[2] : "1"));
    waitForEndOfInput();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(std::span(argv, static_cast<std::size_t>(argc)).subspan(1));
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "pipe_load: %s\n", problem.what());
        return 1;
    }
}
