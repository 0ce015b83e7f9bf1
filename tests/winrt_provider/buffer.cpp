#include "tests/winrt_provider/buffer.h"

#include <algorithm>

#include "tests/winrt_provider/provider.h"

// The interface that gives the bytes of a buffer. The interface definitions do not have it.
struct IBufferByteAccess : IUnknown {
    virtual HRESULT Buffer(BYTE** out) = 0;
};
__CRT_UUID_DECL(IBufferByteAccess, 0x905a0fef, 0xbc53, 0x11df, 0x8c, 0x49, 0x00, 0x1e, 0x4f, 0xc6, 0x86, 0xda)

namespace provider {

namespace {

using ABI::Windows::Foundation::IAsyncOperation;
using ABI::Windows::Foundation::IClosable;
using Bytes = std::vector<std::uint8_t>;

class MemoryBuffer final : public Object<MemoryBuffer, streams::IBuffer, IBufferByteAccess> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Storage.Streams.Buffer";

    explicit MemoryBuffer(Bytes bytes)
        : bytes_(std::move(bytes)), length_(static_cast<UINT32>(bytes_.size())) {}

    HRESULT get_Capacity(UINT32* out) override {
        *out = static_cast<UINT32>(bytes_.size());
        return S_OK;
    }
    HRESULT get_Length(UINT32* out) override {
        *out = length_;
        return S_OK;
    }
    HRESULT put_Length(UINT32 length) override {
        if (length > bytes_.size()) return E_INVALIDARG;
        length_ = length;
        return S_OK;
    }
    HRESULT Buffer(BYTE** out) override {
        *out = bytes_.data();
        return S_OK;
    }

  private:
    Bytes bytes_;
    UINT32 length_;
};

struct DataReaderSlots : streams::IDataReader {
    using Interface = streams::IDataReader;
    HRESULT get_UnicodeEncoding(INT32*) override { return E_NOTIMPL; }
    HRESULT put_UnicodeEncoding(INT32) override { return E_NOTIMPL; }
    HRESULT get_ByteOrder(INT32*) override { return E_NOTIMPL; }
    HRESULT put_ByteOrder(INT32) override { return E_NOTIMPL; }
    HRESULT get_InputStreamOptions(UINT32*) override { return E_NOTIMPL; }
    HRESULT put_InputStreamOptions(UINT32) override { return E_NOTIMPL; }
    HRESULT ReadByte(BYTE*) override { return E_NOTIMPL; }
    HRESULT ReadBuffer(UINT32, streams::IBuffer**) override { return E_NOTIMPL; }
    HRESULT ReadBoolean(boolean*) override { return E_NOTIMPL; }
    HRESULT ReadGuid(GUID*) override { return E_NOTIMPL; }
    HRESULT ReadInt16(INT16*) override { return E_NOTIMPL; }
    HRESULT ReadInt32(INT32*) override { return E_NOTIMPL; }
    HRESULT ReadInt64(INT64*) override { return E_NOTIMPL; }
    HRESULT ReadUInt16(UINT16*) override { return E_NOTIMPL; }
    HRESULT ReadUInt32(UINT32*) override { return E_NOTIMPL; }
    HRESULT ReadUInt64(UINT64*) override { return E_NOTIMPL; }
    HRESULT ReadSingle(FLOAT*) override { return E_NOTIMPL; }
    HRESULT ReadDouble(DOUBLE*) override { return E_NOTIMPL; }
    HRESULT ReadString(UINT32, HSTRING*) override { return E_NOTIMPL; }
    HRESULT ReadDateTime(INT64*) override { return E_NOTIMPL; }
    HRESULT ReadTimeSpan(INT64*) override { return E_NOTIMPL; }
    HRESULT LoadAsync(UINT32, IInspectable**) override { return E_NOTIMPL; }
    HRESULT DetachBuffer(streams::IBuffer**) override { return E_NOTIMPL; }
    HRESULT DetachStream(IInspectable**) override { return E_NOTIMPL; }
};

class Reader final : public Object<Reader, DataReaderSlots, IClosable> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Storage.Streams.DataReader";

    explicit Reader(streams::IBuffer* buffer) : buffer_(buffer), left_(bytesOf(buffer)) {}

    HRESULT get_UnconsumedBufferLength(UINT32* out) override {
        *out = static_cast<UINT32>(left_.size());
        return S_OK;
    }
    HRESULT ReadBytes(UINT32 size, BYTE* out) override {
        if (size > left_.size()) return kOutOfBounds;
        std::copy_n(left_.begin(), size, out);
        left_ = left_.subspan(size);
        return S_OK;
    }
    HRESULT Close() override { return S_OK; }

  private:
    const ComPtr<streams::IBuffer> buffer_;
    std::span<const std::uint8_t> left_;
};

class ReaderFactory final : public Object<ReaderFactory, StaticsOnly, streams::IDataReaderStatics> {
  public:
    static constexpr const wchar_t* kClassName = L"DataReader factory";

    HRESULT FromBuffer(streams::IBuffer* buffer, streams::IDataReader** out) override {
        *out = nullptr;
        return guarded([&] { handOut(make<Reader>(buffer), out); });
    }
};

struct DataWriterSlots : streams::IDataWriter {
    using Interface = streams::IDataWriter;
    HRESULT get_UnicodeEncoding(INT32*) override { return E_NOTIMPL; }
    HRESULT put_UnicodeEncoding(INT32) override { return E_NOTIMPL; }
    HRESULT get_ByteOrder(INT32*) override { return E_NOTIMPL; }
    HRESULT put_ByteOrder(INT32) override { return E_NOTIMPL; }
    HRESULT WriteByte(BYTE) override { return E_NOTIMPL; }
    HRESULT WriteBuffer(streams::IBuffer*) override { return E_NOTIMPL; }
    HRESULT WriteBufferRange(streams::IBuffer*, UINT32, UINT32) override { return E_NOTIMPL; }
    HRESULT WriteBoolean(boolean) override { return E_NOTIMPL; }
    HRESULT WriteGuid(GUID) override { return E_NOTIMPL; }
    HRESULT WriteInt16(INT16) override { return E_NOTIMPL; }
    HRESULT WriteInt32(INT32) override { return E_NOTIMPL; }
    HRESULT WriteInt64(INT64) override { return E_NOTIMPL; }
    HRESULT WriteUInt16(UINT16) override { return E_NOTIMPL; }
    HRESULT WriteUInt32(UINT32) override { return E_NOTIMPL; }
    HRESULT WriteUInt64(UINT64) override { return E_NOTIMPL; }
    HRESULT WriteSingle(FLOAT) override { return E_NOTIMPL; }
    HRESULT WriteDouble(DOUBLE) override { return E_NOTIMPL; }
    HRESULT WriteDateTime(INT64) override { return E_NOTIMPL; }
    HRESULT WriteTimeSpan(INT64) override { return E_NOTIMPL; }
    HRESULT WriteString(HSTRING, UINT32*) override { return E_NOTIMPL; }
    HRESULT MeasureString(HSTRING, UINT32*) override { return E_NOTIMPL; }
    HRESULT StoreAsync(IInspectable**) override { return E_NOTIMPL; }
    HRESULT FlushAsync(IAsyncOperation<boolean>**) override { return E_NOTIMPL; }
    HRESULT DetachStream(IInspectable**) override { return E_NOTIMPL; }
};

class Writer final : public Object<Writer, DataWriterSlots, IClosable> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Storage.Streams.DataWriter";

    HRESULT get_UnstoredBufferLength(UINT32* out) override {
        *out = static_cast<UINT32>(bytes_.size());
        return S_OK;
    }
    HRESULT WriteBytes(UINT32 size, BYTE* bytes) override {
        return guarded([&] { bytes_.insert(bytes_.end(), bytes, bytes + size); });
    }
    HRESULT DetachBuffer(streams::IBuffer** out) override {
        *out = nullptr;
        return guarded([&] { handOut(makeBuffer(std::exchange(bytes_, {})), out); });
    }
    HRESULT Close() override { return S_OK; }

  private:
    Bytes bytes_;
};

class WriterFactory final : public Object<WriterFactory, IActivationFactory> {
  public:
    static constexpr const wchar_t* kClassName = L"DataWriter factory";

    HRESULT ActivateInstance(IInspectable** out) override {
        *out = nullptr;
        return guarded([&] { *out = static_cast<DataWriterSlots*>(make<Writer>().Detach()); });
    }
};

}  // namespace

ComPtr<streams::IBuffer> makeBuffer(std::vector<std::uint8_t> bytes) {
    return make<MemoryBuffer>(std::move(bytes));
}

std::span<const std::uint8_t> bytesOf(streams::IBuffer* buffer) {
    if (!buffer) throw platform::PlatformError(E_POINTER);
    ComPtr<IBufferByteAccess> access;
    check(buffer->QueryInterface(__uuidof(IBufferByteAccess), &access));
    BYTE* bytes = nullptr;
    UINT32 length = 0;
    check(access->Buffer(&bytes));
    check(buffer->get_Length(&length));
    return {bytes, length};
}

ComPtr<IActivationFactory> dataReaderFactory() {
    return make<ReaderFactory>();
}

ComPtr<IActivationFactory> dataWriterFactory() {
    return make<WriterFactory>();
}

}  // namespace provider
