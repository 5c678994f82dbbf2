# Debian packages by CPack: what hosts run with, what they are built with, the debug information, found by build id and with
# commands for gdb, and tools for those who read logs and dumps, on any machine. The
# preset "package" includes this file and sets the folders that Debian prescribes.
set(runtimePackage liberrorhandlerdll)
set(developmentPackage liberrorhandlerdll-dev)
set(debugPackage liberrorhandlerdll-dbgsym)
set(toolsPackage errorhandlerdll-tools)
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

    set(overrides "# There is no public list of bugs.\ninitial-upload-closes-no-bugs\n")
    if(EXISTS ${debianSources}/lintian/${package})
        file(READ ${debianSources}/lintian/${package} own)
        string(APPEND overrides "${own}")
    endif()
    file(CONFIGURE OUTPUT ${debianFiles}/lintian/${package} CONTENT "${overrides}" @ONLY)
    install(FILES ${debianFiles}/lintian/${package} DESTINATION share/lintian/overrides COMPONENT ${component})
endfunction()

install_package_papers(${runtimePackage} DebianRuntime)
install_package_papers(${developmentPackage} DebianDevelopment)
install_package_papers(${debugPackage} DebianDebug)
install_package_papers(${toolsPackage} DebianTools)
install(FILES packaging/lnav/errorhandlerdll.json
    DESTINATION /etc/lnav/formats/errorhandlerdll COMPONENT DebianTools)
install(DIRECTORY packaging/vim/ DESTINATION share/vim/vimfiles COMPONENT DebianTools)
install(DIRECTORY packaging/rsyslog packaging/syslog-ng
    DESTINATION share/doc/${toolsPackage}/examples COMPONENT DebianTools)
install(CODE "execute_process(COMMAND \"${debianSources}/install-pages.sh\" \"${PROJECT_SOURCE_DIR}/docs\"
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/doc/${toolsPackage}\" COMMAND_ERROR_IS_FATAL ANY)" COMPONENT DebianTools)

# As programs of their own, without what runs them as tests here.
install(DIRECTORY examples/ DESTINATION share/doc/${developmentPackage}/examples COMPONENT DebianDevelopment
    PATTERN readme EXCLUDE
    PATTERN "*.sh" EXCLUDE
    REGEX "examples/CMakeLists.txt$" EXCLUDE)
install(FILES packaging/examples/CMakeLists.txt
    DESTINATION share/doc/${developmentPackage}/examples COMPONENT DebianDevelopment)

# gdb looks here for what belongs to the library that it has just read.
install(FILES packaging/gdb/errorhandlerdll.py RENAME libErrorHandlerDll.so-gdb.py
    DESTINATION share/gdb/auto-load${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR} COMPONENT DebianDebug)

# After the pages have been installed, which is why this file is included last.
foreach(component Development Tools)
    install(CODE "execute_process(COMMAND find \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}\"
        -type f -not -name *.gz -exec ${GZIP} -9n {} + COMMAND_ERROR_IS_FATAL ANY)" COMPONENT ${component})
endforeach()

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
set(CPACK_COMPONENTS_ALL Runtime DebianRuntime Development DebianDevelopment DebianDebug Tools DebianTools)
set(CPACK_COMPONENT_RUNTIME_GROUP run)
set(CPACK_COMPONENT_DEBIANRUNTIME_GROUP run)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP develop)
set(CPACK_COMPONENT_DEBIANDEVELOPMENT_GROUP develop)
set(CPACK_COMPONENT_DEBIANDEBUG_GROUP debug)
set(CPACK_COMPONENT_TOOLS_GROUP tools)
set(CPACK_COMPONENT_DEBIANTOOLS_GROUP tools)

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
set(CPACK_DEBIAN_DEVELOP_PACKAGE_RECOMMENDS "${toolsPackage}")
set(CPACK_DEBIAN_DEVELOP_DESCRIPTION "error handling and logging inside a process, development files
Headers for C11 and C++17, the CMake package, the pkg-config file, the
manual pages and examples. The other pages are in ${toolsPackage}.")

set(CPACK_DEBIAN_DEBUG_PACKAGE_NAME ${debugPackage})
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DEBUG_PACKAGE_DEPENDS "${sameRuntime}")
set(CPACK_DEBIAN_DEBUG_DESCRIPTION "debug symbols for ${runtimePackage}
Found by build id: debuggers and symbolisers need no further set-up. In gdb
they bring commands that show the last error and the lines of the log that
were still in memory, from a living process or a core file.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${toolsPackage})
set(CPACK_DEBIAN_TOOLS_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "python3")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "binutils | llvm | elfutils")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "lnav, vim, gdb, rsyslog | syslog-ng-core")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${debianSources}/conffiles)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "logs and crash dumps of ErrorHandlerDll, tools to read them
errorhandlerdll-symbolize names functions, files and lines of crash dumps;
lnav and vim know the logs; samples for rsyslog and syslog-ng ship them. With
the manual pages of both formats and all other pages. Needs no library.")

include(CPack)
