#include "error.h"

#include <sdbus-c++/Error.h>

#include <map>
#include <string_view>

#include "advice.h"

namespace bluez {

namespace {

using platform::GattCommunicationStatus;
using platform::HResult;

// Names that start with "System.Error." are the library's, for errors of the connection itself.
const std::map<std::string_view, HResult> kTranslations = {
    {"org.bluez.Error.DoesNotExist", platform::kRoEClosed},
    {"org.bluez.Error.InProgress", kInProgress},
    {"org.bluez.Error.NotAuthorized", kAccessDenied},
    {"org.bluez.Error.NotConnected", kNotConnected},
    {"org.bluez.Error.NotPermitted", kAccessDenied},
    {"org.bluez.Error.NotReady", kNotReady},
    {"org.bluez.Error.NotSupported", kNotImplemented},
    {"org.freedesktop.DBus.Error.AccessDenied", kAccessDenied},
    {"org.freedesktop.DBus.Error.Disconnected", platform::kRoEClosed},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", platform::kRoEClosed},
    {"org.freedesktop.DBus.Error.NoReply", kTimeout},
    {"org.freedesktop.DBus.Error.ServiceUnknown", platform::kRoEClosed},
    {"org.freedesktop.DBus.Error.TimedOut", kTimeout},
    {"org.freedesktop.DBus.Error.Timeout", kTimeout},
    {"org.freedesktop.DBus.Error.UnknownInterface", platform::kRoEClosed},
    {"org.freedesktop.DBus.Error.UnknownMethod", platform::kRoEClosed},
    {"org.freedesktop.DBus.Error.UnknownObject", platform::kRoEClosed},
    {"System.Error.ECONNRESET", platform::kRoEClosed},
    {"System.Error.ENOTCONN", platform::kRoEClosed},
    {"System.Error.EPIPE", platform::kRoEClosed},
    {"System.Error.ETIMEDOUT", kTimeout},
};

// BlueZ has one name for all of it; the message tells the case (src/gatt-client.c, src/device.c,
// src/error.c). A link that drops before it is complete has the word of the other transport.
HResult codeOfFailure(std::string_view message) {
    if (message == "Operation already in progress") return kInProgress;
    const bool link = message.starts_with("le-connection-") || message.starts_with("br-connection-");
    return link || message == "Not connected" ? kNotConnected : platform::kEFail;
}

HResult codeOf(const sdbus::Error& error) {
    const std::string& name = error.getName();
    // The bus could not start the service: it is not installed, not enabled, or does not come up.
    if (name.starts_with("org.freedesktop.DBus.Error.Spawn.") ||
        name.starts_with("org.freedesktop.systemd1."))
        return platform::kRoEClosed;
    if (name == "org.bluez.Error.Failed") return codeOfFailure(error.getMessage());
    const auto known = kTranslations.find(name);
    return known == kTranslations.end() ? platform::kEFail : known->second;
}

}  // namespace

platform::PlatformError translate(const sdbus::Error& error) {
    const HResult code = codeOf(error);
    if (error.getName() == "org.freedesktop.DBus.Error.AccessDenied") advise(Trouble::noPermission);
    return {code, error.what()};
}

GattCommunicationStatus statusOf(const platform::PlatformError& error) {
    switch (error.code()) {
        case kNotConnected:
        case kNotReady:
        case kTimeout:
            return GattCommunicationStatus::unreachable;
        case kAccessDenied:
            return GattCommunicationStatus::accessDenied;
        case platform::kRoEClosed:
        case platform::kECancelled:
            throw error;
        default:
            return GattCommunicationStatus::protocolError;
    }
}

}  // namespace bluez
