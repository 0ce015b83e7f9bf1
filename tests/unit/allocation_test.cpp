// Receiving a packet allocates no memory.
#ifndef ZIQBLE_SANITIZED  // a sanitizer has its own operator new

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/unit/link_fixture.h"

namespace {
std::atomic<long> allocations = 0;
}

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

TEST(ReceivePath, AllocatesLessThanOnceInTwoPackets) {
    constexpr long kPackets = 10'000;
    test::Link link(R"({"peripherals": [{"serial": "source:0"}]})");
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    auto data = link.openData();
    ASSERT_EQ(data.readBytes(244 * 1000).size(), 244U * 1000);
    const long before = allocations;
    for (int part = 0; part < 10; ++part)
        ASSERT_EQ(data.readBytes(24'400 * 10).size(), 244'000U);
    // What remains is the credit grant with its log line, once in thirty packets.
    EXPECT_LT(allocations - before, kPackets / 2);
    link.stop();
}

}  // namespace

#endif
