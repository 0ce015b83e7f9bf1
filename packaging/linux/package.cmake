# The program looks for drivers.db beside its executable, so both are in a folder of their own, and /usr/bin has links to the
# executables.
set(package ziqbleconnect)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_NAME ${package})
set(CPACK_DEBIAN_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bluez, dbus") # ZIQBLEConnect-sim does not need them
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "bridge between a Bluetooth LE serial peripheral and local programs")
set(CPACK_PACKAGE_DESCRIPTION
"ZIQBLEConnect connects to one Bluetooth LE peripheral that speaks the TIO
serial profile and serves two local sockets: one for commands in short text
lines, one for the bytes of the link.

The package also holds ziqble, a client that makes a terminal, a serial
port, a TCP port or a stream of them, and ZIQBLEConnect-sim, the same program
in a simulated Bluetooth world, for the development of clients.")

set(folder lib/${package})
set(documents share/doc/${package})

# link(TARGET PATH): installs a symbolic link.
function(link target path)
  get_filename_component(name ${path} NAME)
  get_filename_component(into ${path} DIRECTORY)
  file(MAKE_DIRECTORY ${package_files}/${into})
  file(CREATE_LINK ${target} ${package_files}/${path} SYMBOLIC)
  install(FILES ${package_files}/${path} DESTINATION ${into})
endfunction()

# compressed(SOURCE NAME DIRECTORY): installs the file as NAME.gz; the same file gives the same bytes each time.
function(compressed source name into)
  set(text ${package_files}/${name})
  configure_file(${source} ${text} @ONLY)
  add_custom_command(OUTPUT ${text}.gz COMMAND gzip -9nkf ${text} DEPENDS ${text} VERBATIM)
  add_custom_target(package_${name} DEPENDS ${text}.gz)
  add_dependencies(packaged package_${name})
  install(FILES ${text}.gz DESTINATION ${into})
endfunction()

install(TARGETS ${programs} RUNTIME DESTINATION ${folder})
install(FILES ${PROJECT_SOURCE_DIR}/data/drivers.db DESTINATION ${folder})
foreach(program ${programs})
  link(../${folder}/${program} bin/${program})
endforeach()

compressed(${packaging}/linux/ZIQBLEConnect.1 ZIQBLEConnect.1 share/man/man1)
link(ZIQBLEConnect.1.gz share/man/man1/ZIQBLEConnect-sim.1.gz)
compressed(${packaging}/linux/ziqble.1 ziqble.1 share/man/man1)
install(FILES ${packaging}/linux/ziqble.bash-completion DESTINATION share/bash-completion/completions RENAME ziqble)
if(TARGET ZIQBLEConnect)
  install(FILES ${packaging}/linux/ziqbleconnect.service ${packaging}/linux/ziqble-serve@.service DESTINATION lib/systemd/user)
endif()

compressed(${packaging}/linux/changelog changelog ${documents})
configure_file(${packaging}/copyright ${package_files}/copyright @ONLY)
install(FILES ${package_files}/copyright DESTINATION ${documents})
set(docs ${PROJECT_SOURCE_DIR}/docs)
install(FILES ${docs}/linux.md ${docs}/protocol.md ${docs}/recipes.md ${docs}/ends.md ${docs}/failures.md ${docs}/scenario.md ${docs}/drivers-db.md
        DESTINATION ${documents})
install(FILES ${docs}/example_client.py DESTINATION ${documents}/examples)
