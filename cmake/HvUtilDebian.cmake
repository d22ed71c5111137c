# Debian packages through CPack (`cpack -G DEB` in a tree configured with
# CMAKE_INSTALL_PREFIX=/usr; tools/make-debs.sh does both):
#   libhvutil1     the two shared libraries (component "runtime")
#   libhvutil-dev  headers, .so links, the CMake package and hvutil.pc ("dev")
# No dependency is typed here. The runtime package's Depends come from
# dpkg-shlibdeps reading the libraries' own NEEDED entries; the development
# package depends on the runtime package of this version and on whichever
# installed Debian packages provide the ACE and log4cplus development files
# that the CMake package and hvutil.pc refer to, looked up with dpkg.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hvutil)
set(CPACK_PACKAGE_VENDOR "HvUtil developers")
set(CPACK_PACKAGE_CONTACT "HvUtil developers <hvutil@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Reference-counted object model and runtime for SIP stack layers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libhvutil${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# libVelmora ships beside libHvUtil in the same package; dpkg-shlibdeps must
# find it in the staging tree rather than among installed packages.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/_CPack_Packages/Linux/DEB/hvutil-${PROJECT_VERSION}-Linux/runtime${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhvutil-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)

# The Debian package that owns `file`, or nothing when dpkg does not know it.
function(hv_debian_owner_of file result)
  set(owner "")
  find_program(HV_DPKG_QUERY dpkg-query)
  if(HV_DPKG_QUERY AND EXISTS "${file}")
    get_filename_component(real "${file}" REALPATH)
    execute_process(COMMAND ${HV_DPKG_QUERY} -S "${real}"
                    OUTPUT_VARIABLE found RESULT_VARIABLE status ERROR_QUIET)
    if(status EQUAL 0)
      # "libace-dev:amd64: /usr/lib/..." -> "libace-dev"
      string(REGEX REPLACE "^([^:, ]+).*" "\\1" owner "${found}")
    endif()
  endif()
  set(${result} "${owner}" PARENT_SCOPE)
endfunction()

pkg_get_variable(HV_ACE_PC_DIR ACE pcfiledir)
hv_debian_owner_of("${HV_ACE_PC_DIR}/ACE.pc" HV_ACE_DEV_PACKAGE)
hv_debian_owner_of("${log4cplus_CONFIG}" HV_LOG4CPLUS_DEV_PACKAGE)
set(HV_DEV_DEPENDS "")
foreach(package ${HV_ACE_DEV_PACKAGE} ${HV_LOG4CPLUS_DEV_PACKAGE})
  list(APPEND HV_DEV_DEPENDS ${package})
endforeach()
list(JOIN HV_DEV_DEPENDS ", " HV_DEV_DEPENDS)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${HV_DEV_DEPENDS}")

include(CPack)
