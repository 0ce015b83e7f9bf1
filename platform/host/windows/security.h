// COM security of the process.
#pragma once

namespace platform {

// False: the security descriptor could not be made, and nothing else was done.
bool setUpComSecurity();

}  // namespace platform
