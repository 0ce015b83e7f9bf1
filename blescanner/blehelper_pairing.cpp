#include <loguru.hpp>

#include "blehelper.h"

namespace blescanner {

using platform::DevicePairingKinds;

void onPairingRequested(platform::DevicePairingRequestedEventArgs& args) {
    switch (args.pairingKind()) {
        case DevicePairingKinds::confirmOnly:
            args.accept();
            LOG_S(INFO) << "Custom BLE connecting - ConfirmOnly";
            break;
        case DevicePairingKinds::displayPin:
            args.accept();
            LOG_S(INFO) << "Custom BLE connecting - DisplayPin";
            break;
        case DevicePairingKinds::providePin:
            args.acceptWithPin({});
            LOG_S(INFO) << "Custom BLE connecting - ProvidePin";
            break;
        case DevicePairingKinds::confirmPinMatch:
            // The platform expects that the PIN is read. It is not compared: there is no user who could see
            // it.
            args.pin();
            args.accept();
            LOG_S(INFO) << "Custom BLE connecting - ConfirmPinMatch";
            break;
        case DevicePairingKinds::none:
            break;
    }
    // Any other kind gets no answer. The platform then ends the ceremony with a failure, which the caller
    // reports.
}

}  // namespace blescanner
