#include "tests/winrt_provider/buffer.h"

#include <algorithm>

#include "tests/winrt_provider/provider.h"
#include "tests/winrt_provider/view.h"

namespace provider {

namespace {

using Bytes = std::vector<std::uint8_t>;

class MemoryBuffer final : public View<MemoryBuffer, Bytes, streams::IBuffer> {
  public:
    using View::shown_;
    using View::View;
};

class Reader final : public Object<Reader, streams::IDataReader> {
  public:
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

class ReaderFactory final : public FactoryOf<ReaderFactory, streams::IDataReaderStatics> {
  public:
    HRESULT FromBuffer(streams::IBuffer* buffer, streams::IDataReader** out) override {
        return give(out, [&] { return make<Reader>(buffer); });
    }
};

class Writer final : public Object<Writer, streams::IDataWriter> {
  public:
    HRESULT WriteBytes(UINT32 size, BYTE* bytes) override {
        return guarded([&] { bytes_.insert(bytes_.end(), bytes, bytes + size); });
    }
    HRESULT DetachBuffer(streams::IBuffer** out) override {
        return give(out, [&] { return makeBuffer(std::exchange(bytes_, {})); });
    }

  private:
    Bytes bytes_;
};

class WriterFactory final : public FactoryOf<WriterFactory> {
  public:
    HRESULT ActivateInstance(IInspectable** out) override {
        return give(out, [] { return make<Writer>(); });
    }
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
    return make<WriterFactory>();
}

}  // namespace provider
