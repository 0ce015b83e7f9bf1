#include "event_handler.h"

#include <new>

namespace platform::winrt {

HRESULT currentExceptionResult() noexcept {
    try {
        throw;
    } catch (const PlatformError& error) {
        return error.code();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

}  // namespace platform::winrt
