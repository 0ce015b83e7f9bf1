# header_library(NAME HEADER): makes the target NAME for a library that is headers only, from the folder that holds HEADER.
# The build machine's serve for a cross build too. Only that folder may be found through it: beside it are headers of the
# build machine's system.
function(header_library name header)
  find_path(ZIQBLE_${name}_INCLUDE_DIR ${header} PATHS /usr/include /usr/local/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  mark_as_advanced(ZIQBLE_${name}_INCLUDE_DIR)
  get_filename_component(folder ${header} DIRECTORY)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include/${name})
  file(CREATE_LINK ${ZIQBLE_${name}_INCLUDE_DIR}/${folder} ${PROJECT_BINARY_DIR}/include/${name}/${folder} SYMBOLIC)
  add_library(${name} INTERFACE IMPORTED)
  target_include_directories(${name} INTERFACE ${PROJECT_BINARY_DIR}/include/${name})
endfunction()
