# Run by CPack on the staged tree of the Debian package, before it is packed.
# The install rules are relative to the prefix, so that `cmake --install
# --prefix DIR` gives a tree that works from DIR; the package's prefix is
# /usr, and Debian wants the configuration in /etc, the unit in
# /lib/systemd/system, manual pages compressed, a copyright file and
# changelog beside the documentation, and lintian's overrides.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

set(root "${CPACK_TEMPORARY_INSTALL_DIRECTORY}")
set(usr "${root}${CPACK_PACKAGING_INSTALL_PREFIX}")
if(NOT EXISTS "${usr}/bin/vostra-datad")
  message(FATAL_ERROR "Staged tree not where expected: ${usr}/bin/vostra-datad is missing")
endif()

file(RENAME "${usr}/etc" "${root}/etc")
file(MAKE_DIRECTORY "${root}/lib")
file(RENAME "${usr}/lib/systemd" "${root}/lib/systemd")
file(GLOB left_in_lib "${usr}/lib/*")
if(NOT left_in_lib)
  file(REMOVE_RECURSE "${usr}/lib")
endif()

set(man "${usr}/share/man/man8/vostra-datad.8")
if(EXISTS "${man}")
  execute_process(COMMAND gzip -9nf "${man}" COMMAND_ERROR_IS_FATAL ANY)
endif()

set(doc "${usr}/share/doc/${CPACK_DEBIAN_PACKAGE_NAME}")
file(MAKE_DIRECTORY "${doc}")
file(COPY_FILE "${CPACK_VOSTRA_COPYRIGHT}" "${doc}/copyright")
file(COPY_FILE "${CPACK_VOSTRA_CHANGELOG}" "${doc}/changelog.Debian")
execute_process(COMMAND gzip -9nf "${doc}/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)

set(overrides "${usr}/share/lintian/overrides")
file(MAKE_DIRECTORY "${overrides}")
file(COPY_FILE "${CPACK_VOSTRA_LINTIAN_OVERRIDES}" "${overrides}/${CPACK_DEBIAN_PACKAGE_NAME}")

# Modes as Debian expects them whatever the umask of the build: 0755 for
# folders and programs, 0644 for the rest.
execute_process(COMMAND chmod -R u=rwX,go=rX "${root}" COMMAND_ERROR_IS_FATAL ANY)
