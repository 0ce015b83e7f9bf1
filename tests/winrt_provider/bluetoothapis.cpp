// Stands beside the program, because the adapter calls of Wine's own library end the program. It has no
// adapter to show.
#include <windows.h>

extern "C" void* noAdapter() {
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return nullptr;
}
