# Defines the package that tools/package makes: a .zip for Windows, a .deb for Linux. It has the simulated program and the
# client, and the program itself if that is built.
set(programs ZIQBLEConnect-sim ziqble)
if(TARGET ZIQBLEConnect)
  list(APPEND programs ZIQBLEConnect)
endif()
add_custom_target(packaged DEPENDS ${programs}) # everything that has to be built before packing

set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VENDOR "${PROJECT_NAME} maintainers")
set(CPACK_PACKAGE_CONTACT "${PROJECT_NAME} maintainers <maintainers@ziqbleconnect.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_SOURCE_DIR}/build/packages)
set(CPACK_STRIP_FILES ON)
# The same permissions whatever umask the packing user has.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(package_files ${PROJECT_BINARY_DIR}/packaging) # files that the build makes for the package
if(WIN32)
  include(${packaging}/windows/package.cmake)
else()
  include(${packaging}/linux/package.cmake)
endif()
include(CPack)
