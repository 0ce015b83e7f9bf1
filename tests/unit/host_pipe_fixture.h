// A fixture with a pipe of the host and its client.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "platform/pipe.h"
#include "tests/unit/support.h"

namespace platform {

using Bytes = std::vector<std::uint8_t>;

// Larger than what a pipe buffers.
inline Bytes largeBlock() {
    Bytes block(1 << 20);
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(i * i >> 8);
    return block;
}

class HostPipe : public ::testing::Test {
  protected:
    Pipe::Created create() const { return Pipe::create(path_.wstring()); }
    void open() {
        pipe_.reset();
        pipe_ = create().pipe;
        ASSERT_TRUE(pipe_);
    }
    test::PipeClient newClient() { return test::PipeClient(path_); }
    test::PipeClient openWithClient() {
        open();
        test::PipeClient client = newClient();
        EXPECT_EQ(pipe_->connect(), SystemError::none);
        return client;
    }
    bool wait() { return waitAny(std::array{&request_.event()}, test::kDeadline).has_value(); }
    IoResult read() {
        const IoResult result = pipe_->startRead(request_, buffer_);
        return result.error == SystemError::ioPending && wait() ? pipe_->result(request_) : result;
    }
    std::string readText() {
        const IoResult result = read();
        EXPECT_EQ(result.error, SystemError::none);
        return {reinterpret_cast<const char*>(buffer_.data()), result.bytes};
    }

    const test::TemporaryFolder folder_;
    const std::filesystem::path path_ = test::pipeOf(folder_.path());
    std::shared_ptr<Pipe> pipe_;
    IoRequest request_;
    Bytes buffer_ = Bytes(512);
};

}  // namespace platform
