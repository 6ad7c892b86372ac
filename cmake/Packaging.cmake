# Debian packages, by CPack. script/package drives this; it is not for builds that nobody hands out.
if(NOT QXPMAINT_PUBLIC_KEY)
  message(FATAL_ERROR "Packages need the public key that scripts are verified with: -DQXPMAINT_PUBLIC_KEY=FILE.pem")
endif()
if(QXPMAINT_TEST_HOOKS OR QXPMAINT_SANITIZER)
  message(FATAL_ERROR "Packages are never built with test hooks or sanitizers")
endif()
find_program(GZIP_PROGRAM gzip REQUIRED)
set(QXPMAINT_PACKAGE_MAINTAINER "qxpmaint maintainers <maintainers@qxpmaint.example>"
    CACHE STRING "Maintainer that the packages name, as NAME <ADDRESS>")
set(QXPMAINT_PACKAGE_REVISION "1" CACHE STRING "Revision of the packaging, the part of the version behind the dash")

set(generated "${CMAKE_BINARY_DIR}/packaging")
set(debian_version "${PROJECT_VERSION}-${QXPMAINT_PACKAGE_REVISION}")

install(
  CODE "file(GLOB_RECURSE pages \"\$ENV{DESTDIR}${QXP_SYSTEM_PREFIX}/share/man/*.[1-9]\")
        foreach(page IN LISTS pages)
          execute_process(COMMAND \"${GZIP_PROGRAM}\" -9nf \"\${page}\" COMMAND_ERROR_IS_FATAL ANY)
        endforeach()"
  COMPONENT agent-system EXCLUDE_FROM_ALL)

# The documents that every package has.
string(TIMESTAMP QXP_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC) # of SOURCE_DATE_EPOCH, when that is set
set(QXP_DEBIAN_VERSION "${debian_version}")
configure_file(packaging/deb/changelog.in "${generated}/changelog.Debian" @ONLY)
configure_file(CHANGELOG.md "${generated}/changelog" COPYONLY)
foreach(document IN ITEMS changelog changelog.Debian)
  execute_process(COMMAND "${GZIP_PROGRAM}" -9nf "${generated}/${document}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# qxp_package(NAME COMPONENTS component... DESCRIPTION text [SECTION section] [DEPENDS packages]): one .deb, with the
# control files of packaging/deb/NAME.
function(qxp_package name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION;SECTION;DEPENDS" "COMPONENTS")
  list(GET arg_COMPONENTS 0 first)
  install(FILES "${generated}/changelog.gz" "${generated}/changelog.Debian.gz" packaging/deb/copyright
          DESTINATION "${QXP_SYSTEM_PREFIX}/share/doc/${name}" COMPONENT ${first} EXCLUDE_FROM_ALL)
  configure_file("packaging/deb/${name}/lintian-overrides" "${generated}/overrides/${name}" @ONLY)
  install(FILES "${generated}/overrides/${name}" DESTINATION "${QXP_SYSTEM_PREFIX}/share/lintian/overrides"
          COMPONENT ${first} EXCLUDE_FROM_ALL)

  set(control_files)
  foreach(file IN ITEMS conffiles postinst prerm postrm)
    if(EXISTS "${CMAKE_SOURCE_DIR}/packaging/deb/${name}/${file}")
      configure_file("packaging/deb/${name}/${file}" "${generated}/deb/${name}/${file}" @ONLY)
      list(APPEND control_files "${generated}/deb/${name}/${file}")
    endif()
  endforeach()

  foreach(component IN LISTS arg_COMPONENTS)
    string(TOUPPER "${component}" component)
    set(CPACK_COMPONENT_${component}_GROUP "${name}" PARENT_SCOPE)
  endforeach()
  list(APPEND CPACK_COMPONENTS_ALL ${arg_COMPONENTS})
  set(CPACK_COMPONENTS_ALL "${CPACK_COMPONENTS_ALL}" PARENT_SCOPE)
  string(TOUPPER "${name}" key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME "${name}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${arg_DESCRIPTION}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${arg_DEPENDS}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION "${arg_SECTION}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA "${control_files}" PARENT_SCOPE)
endfunction()

set(CPACK_COMPONENTS_ALL)
qxp_package(
  qxpmaint
  COMPONENTS plugin
  SECTION admin
  DESCRIPTION "The plugin verifies the signature of each script that a host process hands to
it, runs it as root, captures its output, ends what hangs and reports.

This package holds the plugin and the host SDK's library. It does nothing
without a host: the agent of qxpmaint-agent, or another one.")
qxp_package(
  qxpmaint-agent
  COMPONENTS agent agent-system
  SECTION admin
  DEPENDS "qxpmaint (= ${debian_version}), adduser, procps"
  DESCRIPTION "qxpagent is the service that runs the plugin, with an HTTP API on a Unix
socket. qxpctl makes keys, signs scripts, sends them and shows the results.")
qxp_package(
  qxpmaint-dev
  COMPONENTS dev dev-system
  SECTION libdevel
  DEPENDS "qxpmaint (= ${debian_version})"
  DESCRIPTION "The headers of the host SDK and of the plugin's entry points, for those who
write a host for the plugin, or a plugin for such a host.")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME "${PROJECT_NAME}")
set(CPACK_PACKAGE_CONTACT "${QXPMAINT_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${public_directory})
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE "${QXPMAINT_PACKAGE_REVISION}")
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON) # strips the programs, too
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own library is found here; qxpmaint is named as a dependency above.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
include(CPack)
