# Defines the target nlohmann_json::nlohmann_json. A cross build finds no package for its target; the library has headers only, so
# those of the build machine can be used. A link to their folder keeps all other headers of the build machine out.
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
