// Errors of the bus as the program knows them. The one place where they are translated.
#pragma once

#include <exception>
#include <memory>

#include "bluetooth/operation.h"
#include "platform/async.h"
#include "platform/error.h"
#include "platform/gatt.h"

namespace sdbus {
class Error;
}

namespace bluez {

inline constexpr platform::HResult kAccessDenied = platform::hresult(0x80070005);
inline constexpr platform::HResult kNotConnected = platform::hresult(0x8007048F);
inline constexpr platform::HResult kNotImplemented = platform::hresult(0x80004001);
inline constexpr platform::HResult kNotReady = platform::hresult(0x800710DF);
inline constexpr platform::HResult kTimeout = platform::hresult(0x800705B4);
inline constexpr platform::HResult kInProgress = bluetooth::kIllegalMethodCall;

// Gives advice where there is something that a person can do.
platform::PlatformError translate(const sdbus::Error& error);

// The status of a GATT call that failed. Throws the error again where it is none of the peripheral's.
platform::GattCommunicationStatus statusOf(const platform::PlatformError& error);

// Runs the body on the caller's thread, and returns its result or its failure as a finished operation. So the
// caller waits on the bus, which costs no processor time; polling a pending operation would.
template <class Body, class Result = decltype(std::declval<Body>()())>
platform::AsyncOperationPtr<Result> run(Body body) {
    auto operation = std::make_shared<bluetooth::Operation<Result>>();
    try {
        operation->complete(body());
    } catch (const platform::PlatformError& error) {
        error.code() == platform::kECancelled ? operation->cancel() : operation->fail(error);
    }
    return operation;
}

}  // namespace bluez
