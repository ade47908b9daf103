# Debian packages, one a component: libdif1, libdif-host1, libdif-dev, dif-tools and nbdkit-dif-filter, and their debug
# symbols. They take a build for the prefix /usr.
if(NOT SCDOC OR NOT TARGET nbdkit-dif-filter)
  message(FATAL_ERROR "The packages take scdoc and nbdkit-plugin-dev")
endif()

set(dif_deb_version ${PROJECT_VERSION}-1)
set(dif_maintainer "libdif authors <maintainers@libdif.invalid>")
string(TIMESTAMP dif_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/changelog.Debian.in changelog.Debian @ONLY)
dif_compressed(${PROJECT_BINARY_DIR}/changelog.Debian changelog.Debian cat)
dif_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog cat)

# dif_package(COMPONENT NAME SECTION DEPENDS SUMMARY DESCRIPTION)
macro(dif_package component name section depends summary description)
  install(FILES docs/copyright ${PROJECT_BINARY_DIR}/changelog.gz ${PROJECT_BINARY_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  string(TOUPPER ${component} key)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${description}")
endmacro()

# dif_library_package(COMPONENT NAME TARGET SUMMARY DESCRIPTION): also says which version what uses the library depends on.
macro(dif_library_package component name target summary description)
  dif_package(${component} ${name} libs "" "${summary}" "${description}")
  add_custom_command(OUTPUT ${name}/symbols COMMAND ${CMAKE_COMMAND} -E make_directory ${name}
    COMMAND dpkg-gensymbols -q -p${name} -v${PROJECT_VERSION} -e$<TARGET_FILE:${target}> -O${name}/symbols
    DEPENDS ${target} VERBATIM)
  list(APPEND dif_symbols ${name}/symbols)
  # The trigger does what cpack's own scripts would; naming scripts that are not there keeps them out.
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/${name}/symbols
    ${PROJECT_BINARY_DIR}/triggers ${PROJECT_BINARY_DIR}/postinst ${PROJECT_BINARY_DIR}/postrm)
endmacro()
file(CONFIGURE OUTPUT triggers CONTENT "activate-noawait ldconfig\n")

dif_library_package(runtime libdif1 dif
  "data integrity fields for block storage - library"
  "Writes an 8-byte integrity field behind every block of a storage stack,\n\
rewrites and checks it on the way, and tells which block is wrong and how.\n\
Works on contiguous buffers and scatter-gather lists. The process that loads\n\
it supplies what it expects, or leaves that to libdif-host1.")
dif_library_package(host libdif-host1 dif_host
  "data integrity fields for block storage - host library"
  "Supplies what libdif expects of the process that loads it: log, assertions,\n\
services, operator commands, a control socket and metrics.")
# It was in libdif1.
set(CPACK_DEBIAN_HOST_PACKAGE_BREAKS "libdif1 (<< ${dif_deb_version})")
set(CPACK_DEBIAN_HOST_PACKAGE_REPLACES "libdif1 (<< ${dif_deb_version})")
dif_package(dev libdif-dev libdevel "libdif1 (= ${dif_deb_version}), libdif-host1 (= ${dif_deb_version})"
  "data integrity fields for block storage - development files"
  "Headers, linker names, static libraries, pkg-config and CMake files of libdif\n\
and libdif_host, and the manual page libdif(3).")
# What the static libraries are linked with.
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libisal-dev, libspdlog-dev")
dif_package(tools dif-tools utils ""
  "data integrity fields for block storage - command-line tool"
  "difctl writes, verifies, shows and rewrites the integrity fields of disk\n\
images.")
# A filter works with the version of nbdkit that it was built for alone.
dif_package(nbdkit nbdkit-dif-filter admin "nbdkit (>= ${NBDKIT_VERSION}), nbdkit (<< ${NBDKIT_VERSION}.~)"
  "data integrity fields for block storage - nbdkit filter"
  "Serves an image of blocks with integrity fields as a disk: every write gets its\n\
fields, every read is checked, and a block that fails is an I/O error.")

# dpkg-shlibdeps looks here for the libraries in lib.
add_custom_command(OUTPUT DEBIAN/symbols COMMAND ${CMAKE_COMMAND} -E make_directory DEBIAN
  COMMAND ${CMAKE_COMMAND} -E cat ${dif_symbols} >DEBIAN/symbols DEPENDS ${dif_symbols})
add_custom_target(package_symbols ALL DEPENDS DEBIAN/symbols)

install(CODE "execute_process(COMMAND ${CMAKE_STRIP} --strip-debug --enable-deterministic-archives
  \$ENV{DESTDIR}${CMAKE_INSTALL_FULL_LIBDIR}/libdif.a \$ENV{DESTDIR}${CMAKE_INSTALL_FULL_LIBDIR}/libdif_host.a
  COMMAND_ERROR_IS_FATAL ANY)")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dif)
set(CPACK_PACKAGE_CONTACT ${dif_maintainer})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has a first line of its own
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON) # which strips the binaries
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE dif)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
include(CPack)
