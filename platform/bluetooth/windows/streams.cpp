#include "streams.h"

#include <algorithm>

namespace platform::winrt {

namespace abi = ABI::Windows::Storage::Streams;

Streams::Streams()
    : writers_(activationFactory<IActivationFactory>(RuntimeClass_Windows_Storage_Streams_DataWriter)),
      readers_(activationFactory<abi::IDataReaderStatics>(RuntimeClass_Windows_Storage_Streams_DataReader)) {}

ComPtr<abi::IBuffer> Streams::bufferOf(std::span<const std::uint8_t> bytes) const {
    const auto writer = query<abi::IDataWriter>(objectOf(writers_, &IActivationFactory::ActivateInstance));
    // The writer takes a pointer to what it may change, and copies it.
    check(writer->WriteBytes(static_cast<UINT32>(bytes.size()), const_cast<BYTE*>(bytes.data())));
    return objectOf(writer, &abi::IDataWriter::DetachBuffer);
}

std::span<const std::uint8_t> Streams::bytesOf(abi::IBuffer* buffer, ValueBytes& storage) const {
    if (!buffer) return {};
    ComPtr<abi::IDataReader> reader;
    check(readers_->FromBuffer(buffer, reader.GetAddressOf()));
    const UINT32 length = std::min(valueOf(reader, &abi::IDataReader::get_UnconsumedBufferLength),
                                   static_cast<UINT32>(storage.size()));
    if (length > 0) check(reader->ReadBytes(length, storage.data()));
    return std::span(storage).first(length);
}

}  // namespace platform::winrt
