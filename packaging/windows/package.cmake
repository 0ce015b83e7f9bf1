# All in one folder that can be copied anywhere: the program looks for drivers.db beside its executable.
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION}-win64)

configure_file(${packaging}/windows/README.txt ${package_files}/README.txt @ONLY NEWLINE_STYLE CRLF)
configure_file(${packaging}/copyright ${package_files}/COPYRIGHT.txt @ONLY NEWLINE_STYLE CRLF)

foreach(page protocol recipes)
  configure_file(${PROJECT_SOURCE_DIR}/docs/${page}.md ${package_files}/${page}.txt @ONLY NEWLINE_STYLE CRLF)
endforeach()

install(TARGETS ${programs} RUNTIME DESTINATION .)
install(FILES ${PROJECT_SOURCE_DIR}/data/drivers.db ${package_files}/README.txt ${package_files}/COPYRIGHT.txt
              ${package_files}/protocol.txt ${package_files}/recipes.txt
        DESTINATION .)
