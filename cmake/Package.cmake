# Debian packages by CPack: what hosts run with, what they are built with, and the debug information, found by build id. The
# preset "package" includes this file and sets the folders that Debian prescribes.
set(runtimePackage liberrorhandlerdll)
set(developmentPackage liberrorhandlerdll-dev)
set(debugPackage liberrorhandlerdll-dbgsym)
set(debianSources ${PROJECT_SOURCE_DIR}/packaging/debian)
set(debianFiles ${PROJECT_BINARY_DIR}/debian)

# The package's revision stands only in the Debian changelog, the version only in the header.
file(STRINGS ${debianSources}/changelog newestEntry LIMIT_COUNT 1)
if(NOT newestEntry MATCHES "\\(${PROJECT_VERSION}-([0-9]+)\\)")
    message(FATAL_ERROR "The newest entry of packaging/debian/changelog is not about version ${PROJECT_VERSION}: ${newestEntry}")
endif()
set(packageRevision ${CMAKE_MATCH_1})
set(sameRuntime "${runtimePackage} (= ${PROJECT_VERSION}-${packageRevision})")

# Files that only a Debian package has are in components of their own: a plain installation stays as it is.
find_program(GZIP gzip REQUIRED)
function(install_compressed file destination name component)
    set(compressed ${debianFiles}/${component}/${name}.gz)
    file(MAKE_DIRECTORY ${debianFiles}/${component})
    execute_process(COMMAND ${GZIP} -9nc ${file} OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    install(FILES ${compressed} DESTINATION ${destination} COMPONENT ${component})
endfunction()
function(install_package_papers package component)
    set(folder share/doc/${package})
    install(FILES ${debianSources}/copyright DESTINATION ${folder} COMPONENT ${component})
    install_compressed(${debianSources}/changelog ${folder} changelog.Debian ${component})
    install_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${folder} changelog ${component})
endfunction()

install_package_papers(${runtimePackage} DebianRuntime)
install_package_papers(${developmentPackage} DebianDevelopment)
install_package_papers(${debugPackage} DebianDebug)
install(DIRECTORY packaging/lnav packaging/rsyslog
    DESTINATION share/doc/${runtimePackage}/examples COMPONENT DebianRuntime)
install(DIRECTORY docs/ DESTINATION share/doc/${developmentPackage}
    COMPONENT DebianDevelopment FILES_MATCHING PATTERN "*.md" PATTERN man EXCLUDE)

# After the pages have been installed, which is why this file is included last.
install(CODE "execute_process(COMMAND find \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}\"
    -type f -exec ${GZIP} -9n {} + COMMAND_ERROR_IS_FATAL ANY)" COMPONENT Development)

# Not CPack's own debug packages: their list of checksums names files of the build machine.
add_custom_command(TARGET ErrorHandlerDll POST_BUILD
    COMMAND ${debianSources}/keep-debug.sh $<TARGET_FILE:ErrorHandlerDll> ${debianFiles}/debug
    VERBATIM)
install(DIRECTORY ${debianFiles}/debug DESTINATION lib COMPONENT DebianDebug)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME errorhandlerdll)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has a summary of its own
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime DebianRuntime Development DebianDevelopment DebianDebug)
set(CPACK_COMPONENT_RUNTIME_GROUP run)
set(CPACK_COMPONENT_DEBIANRUNTIME_GROUP run)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP develop)
set(CPACK_COMPONENT_DEBIANDEVELOPMENT_GROUP develop)
set(CPACK_COMPONENT_DEBIANDEBUG_GROUP debug)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE errorhandlerdll)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${packageRevision})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "ErrorHandlerDll maintainers <maintainers@example.org>")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUN_PACKAGE_NAME ${runtimePackage})
set(CPACK_DEBIAN_RUN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUN_PACKAGE_SHLIBDEPS ON)
# A soname without a version cannot stand in a shlibs file; a symbols file serves the same purpose, symbol by symbol.
set(CPACK_DEBIAN_RUN_PACKAGE_CONTROL_EXTRA ${debianSources}/symbols ${debianSources}/triggers)
set(CPACK_DEBIAN_RUN_DESCRIPTION "error handling and logging inside a process
One log for the process with levels, categories and numbered files; error
codes and their texts; errors raised, handled and reported once; a dump of
fatal signals. The library starts no threads and reads no configuration.")

set(CPACK_DEBIAN_DEVELOP_PACKAGE_NAME ${developmentPackage})
set(CPACK_DEBIAN_DEVELOP_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOP_PACKAGE_DEPENDS "${sameRuntime}")
set(CPACK_DEBIAN_DEVELOP_DESCRIPTION "error handling and logging inside a process, development files
Headers for C11 and C++17, the CMake package, the pkg-config file and the
manual pages.")

set(CPACK_DEBIAN_DEBUG_PACKAGE_NAME ${debugPackage})
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DEBUG_PACKAGE_DEPENDS "${sameRuntime}")
set(CPACK_DEBIAN_DEBUG_DESCRIPTION "debug symbols for ${runtimePackage}
Found by build id: debuggers and symbolisers need no further set-up.")

include(CPack)
