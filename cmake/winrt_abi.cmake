# Defines the target winrt_abi: the ABI headers of the Windows Runtime. The Windows SDK has them. If the tool chain lacks them
# they are made from the interface definitions in platform/bluetooth/windows/abi and from Wine's base definitions (Debian:
# wine64-tools, libwine-dev).
include_guard(GLOBAL)
include(CheckIncludeFileCXX)

add_library(winrt_abi INTERFACE)
check_include_file_cxx(windows.devices.bluetooth.genericattributeprofile.h ZIQBLE_HAVE_WINRT_ABI)
if(ZIQBLE_HAVE_WINRT_ABI)
  return()
endif()

find_program(ZIQBLE_WIDL NAMES widl-stable widl REQUIRED)
find_path(ZIQBLE_WINE_IDL windows.foundation.idl REQUIRED NO_CMAKE_FIND_ROOT_PATH
          PATHS /usr/include/wine/wine/windows /usr/include/wine/windows /usr/include/wine-development/wine/windows)

set(own_idl ${PROJECT_SOURCE_DIR}/platform/bluetooth/windows/abi)
set(header_directory ${PROJECT_BINARY_DIR}/winrt_abi)
file(MAKE_DIRECTORY ${header_directory})
file(GLOB own_idl_files CONFIGURE_DEPENDS ${own_idl}/*.idl)
set(headers "")
foreach(idl ${ZIQBLE_WINE_IDL}/windows.foundation.collections.idl ${ZIQBLE_WINE_IDL}/windows.foundation.idl ${own_idl_files})
  get_filename_component(name ${idl} NAME_WLE)
  set(header ${header_directory}/${name}.h)
  add_custom_command(OUTPUT ${header}
    COMMAND ${ZIQBLE_WIDL} --winrt --nostdinc -I${own_idl} -I${ZIQBLE_WINE_IDL} -h -o ${header} ${idl}
    DEPENDS ${own_idl_files}
    COMMENT "Interface definitions: ${name}"
    VERBATIM)
  list(APPEND headers ${header})
endforeach()
add_custom_target(winrt_abi_headers DEPENDS ${headers})
add_dependencies(winrt_abi winrt_abi_headers)
target_include_directories(winrt_abi SYSTEM INTERFACE ${header_directory})
