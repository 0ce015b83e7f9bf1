#include "advice.h"

#include <loguru.hpp>

#include "platform/text.h"

namespace bluez {

namespace {

std::string text(Trouble trouble, const std::string& detail) {
    switch (trouble) {
        case Trouble::noBus:
            return "the system bus cannot be reached (" + detail + "); start it: systemctl start dbus";
        case Trouble::noService:
            return "bluetoothd does not run or does not answer; install and start it: apt-get install bluez, "
                   "systemctl enable --now bluetooth; without an adapter it does not start: plug one in";
        case Trouble::serviceEnded:
            return "bluetoothd has ended and all its links with it; see why: journalctl -u bluetooth, start "
                   "it: systemctl restart bluetooth, then connect again";
        case Trouble::noPermission:
            return "this user may not talk to bluetoothd; add it to the group: adduser USER bluetooth, and "
                   "log in again";
        case Trouble::noAdapter:
            return "there is no adapter that is switched on; look with bluetoothctl list, plug one in, or "
                   "switch it on: bluetoothctl power on";
        case Trouble::adapterOff:
            return "adapter " + detail +
                   " was switched off and all its links with it; switch it on, unless bluetoothd is being "
                   "stopped: bluetoothctl power on, then connect again";
        case Trouble::adapterBlocked:
            return "adapter " + detail + " is blocked; release it: rfkill unblock bluetooth";
        case Trouble::adapterGone:
            return "adapter " + detail +
                   " is gone and all its links with it; plug it in again, unless bluetoothd is being "
                   "stopped, then connect again";
    }
    return {};
}

}  // namespace

void advise(Trouble trouble, const std::string& detail) {
    LOG_S(WARNING) << "[WARNING] Bluetooth: " << text(trouble, platform::printable(detail));
}

}  // namespace bluez
