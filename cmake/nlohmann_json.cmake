# Makes nlohmann_json::nlohmann_json. A cross build finds no package of its own; the library is headers only, so the build
# machine's serve. Only they may be found there: beside them are headers of the build machine's system.
find_package(nlohmann_json QUIET)
if(TARGET nlohmann_json::nlohmann_json)
  return()
endif()
find_path(NLOHMANN_JSON_HOST_INCLUDE_DIR nlohmann/json.hpp PATHS /usr/include /usr/local/include
          NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
mark_as_advanced(NLOHMANN_JSON_HOST_INCLUDE_DIR)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include)
file(CREATE_LINK ${NLOHMANN_JSON_HOST_INCLUDE_DIR}/nlohmann ${PROJECT_BINARY_DIR}/include/nlohmann SYMBOLIC)
add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)
target_include_directories(nlohmann_json::nlohmann_json INTERFACE ${PROJECT_BINARY_DIR}/include)
