#include "tests/winrt_provider/buffer.h"

#include <algorithm>

#include "tests/winrt_provider/provider.h"
#include "tests/winrt_provider/view.h"

namespace provider {

namespace {

using Bytes = std::vector<std::uint8_t>;

struct MemoryBuffer final : View<MemoryBuffer, Bytes, streams::IBuffer> {
    using View::shown_;
    using View::View;
};

struct Reader final : Object<Reader, streams::IDataReader> {
    explicit Reader(streams::IBuffer* buffer) : buffer_(buffer), left_(bytesOf(buffer)) {}

    HRESULT get_UnconsumedBufferLength(UINT32* out) override {
        return give(out, [&] { return left_.size(); });
    }
    HRESULT ReadBytes(UINT32 size, BYTE* out) override {
        if (size > left_.size()) return kOutOfBounds;
        std::copy_n(left_.begin(), size, out);
        left_ = left_.subspan(size);
        return S_OK;
    }

  private:
    const ComPtr<streams::IBuffer> buffer_;
    std::span<const std::uint8_t> left_;
};

struct ReaderFactory final : FactoryOf<ReaderFactory, streams::IDataReaderStatics> {
    HRESULT FromBuffer(streams::IBuffer* buffer, streams::IDataReader** out) override {
        return give(out, [&] { return make<Reader>(buffer); });
    }
};

struct Writer final : Object<Writer, streams::IDataWriter> {
    HRESULT WriteBytes(UINT32 size, BYTE* bytes) override {
        return guarded([&] { bytes_.insert(bytes_.end(), bytes, bytes + size); });
    }
    HRESULT DetachBuffer(streams::IBuffer** out) override {
        return give(out, [&] { return makeBuffer(std::exchange(bytes_, {})); });
    }

  private:
    Bytes bytes_;
};

}  // namespace

ComPtr<streams::IBuffer> makeBuffer(std::vector<std::uint8_t> bytes) {
    return make<MemoryBuffer>(std::move(bytes));
}

std::span<const std::uint8_t> bytesOf(streams::IBuffer* buffer) {
    const auto* const own = dynamic_cast<MemoryBuffer*>(buffer);
    if (!own) throw platform::PlatformError(E_POINTER);
    return own->shown_;
}

ComPtr<IActivationFactory> dataReaderFactory() {
    return make<ReaderFactory>();
}

ComPtr<IActivationFactory> dataWriterFactory() {
    return make<Activator<Writer>>();
}

}  // namespace provider
