#include "cmdpipe.h"

#include <chrono>
#include <loguru.hpp>
#include <utility>

#include "platform/text.h"
#include "settings.h"

namespace blescanner {

namespace {

// Deliberately different: replies are short, data is long.
constexpr std::int64_t kReplyMsPerCharacter = 100;
constexpr std::int64_t kDataMsPerByte = 50;

std::string lowBytes(const std::wstring& text) {
    std::string bytes;
    for (const wchar_t unit : text)
        bytes.push_back(static_cast<char>(unit & 0xFF));
    return bytes;
}

}  // namespace

platform::SystemError CNamedPipe::create(const std::wstring& name) {
    auto created = creator(name);
    pipe_ = std::move(created.pipe);
    createError_ = created.error;
    return created.error;
}

void CNamedPipe::close() {
    if (pipe_) pipe_->close();
}

void CNamedPipe::logClient() const {
    const auto client = pipe_->client();
    // Deliberate: the number of the client's session, not of its process.
    LOG_S(INFO) << "Client: (" << client.sessionId << "): " << platform::printable(client.computerName);
}

platform::IoResult CNamedPipe::write(std::span<const std::uint8_t> bytes, std::int64_t msPerByte) {
    const auto started = pipe_->startWrite(writeRequest_, bytes);
    if (started.error != platform::SystemError::ioPending) return started;
    const auto factor = static_cast<std::int64_t>(bytes.size()) + 1;
    return pipe_->finish(writeRequest_, std::chrono::milliseconds(factor * msPerByte));
}

void CNamedPipe::writeText(std::wstring& text) {
    const std::size_t end = text.ends_with(L"\r\n") ? text.size() - 2 : text.size();
    LOG_S(INFO) << "SHELL: " << platform::printable(text.substr(0, end))
                << platform::toUtf8(text.substr(end));
    const std::string bytes = lowBytes(text);
    text.clear();
    if (!pipe_) return;
    const auto data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const auto outcome = write({data, bytes.size()}, kReplyMsPerCharacter);
    if (outcome.error == platform::SystemError::none) return;
    if (outcome.error == platform::SystemError::operationAborted) {
        LOG_S(WARNING) << "Command pipe: " << bytes.size() - outcome.bytes << " bytes of a reply given up";
        return;
    }
    LOG_S(INFO) << "SHELL PIPE ERR(W)="
                << " (" << platform::number(outcome.error) << ")";
}

std::size_t CNamedPipe::writeBytes(std::span<const std::uint8_t> bytes) {
    if (!pipe_) return 0;
    const auto outcome = write(bytes, kDataMsPerByte);
    const bool failed = outcome.error != platform::SystemError::none;
    if (failed && outcome.error != platform::SystemError::operationAborted) {
        LOG_S(INFO) << "ERR(W)="
                    << " (" << platform::number(outcome.error) << "). Read " << bytes.size();
    }
    return outcome.bytes;
}

platform::SystemError CNamedPipe::connect() {
    return pipe_->connect();
}

platform::SystemError CNamedPipe::startConnect(platform::IoRequest& request) {
    return pipe_ ? pipe_->startConnect(request) : createError_;
}

platform::IoResult CNamedPipe::startRead(platform::IoRequest& request, std::span<std::uint8_t> buffer) {
    return pipe_->startRead(request, buffer);
}

platform::IoResult CNamedPipe::result(platform::IoRequest& request) {
    return pipe_->result(request);
}

platform::IoResult CNamedPipe::cancel(platform::IoRequest& request) {
    return pipe_ ? pipe_->cancel(request) : platform::IoResult{createError_, 0};
}

bool CNamedPipe::flush(std::chrono::milliseconds bound) {
    return !pipe_ || pipe_->flush(bound);
}

void CNamedPipe::disconnect() {
    if (pipe_) pipe_->disconnect();
}

bool CNamedPipe::clientLeft() const {
    return !pipe_ || pipe_->clientLeft();
}

std::shared_ptr<CNamedPipe> createDataPipe() {
    const std::string name = platform::printable(settings().datPipeName);
    LOG_S(INFO) << "Creating pipe " << name;
    auto endpoint = std::make_shared<CNamedPipe>();
    const auto error = endpoint->create(settings().datPipeName);
    if (error != platform::SystemError::none) {
        LOG_S(ERROR) << "Could not create comm pipe " << name << " " << platform::number(error);
    }
    return endpoint;
}

}  // namespace blescanner
