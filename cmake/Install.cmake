# Installation: what a host needs to run (component Runtime) and to be built (component Development).
include(CMakePackageConfigHelpers)

# Not the multiarch folder that GNUInstallDirs would choose: PREFIX/lib unless a packager says otherwise.
set(CMAKE_INSTALL_LIBDIR lib CACHE STRING "Folder of the library, relative to the prefix")
include(GNUInstallDirs)

set(packageFolder ${CMAKE_INSTALL_LIBDIR}/cmake/ErrorHandlerDll)

install(TARGETS ErrorHandlerDll EXPORT ErrorHandlerDllTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES
    include/ErrorHandlerDll/Boundary.h
    include/ErrorHandlerDll/CheckedRaise.h
    include/ErrorHandlerDll/CrashHandler.h
    include/ErrorHandlerDll/ErrorCodes.h
    include/ErrorHandlerDll/ErrorHandlerDll.h
    include/ErrorHandlerDll/ExceptionHandler.h
    include/ErrorHandlerDll/Export.h
    include/ErrorHandlerDll/HalvikException.h
    include/ErrorHandlerDll/LinuxStructuredException.h
    include/ErrorHandlerDll/Log.h
    include/ErrorHandlerDll/Version.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ErrorHandlerDll COMPONENT Development)
install(FILES
    include/ErrorHandlerDll/adapters/BoostLog.h
    include/ErrorHandlerDll/adapters/FlushLog.h
    include/ErrorHandlerDll/adapters/Glog.h
    include/ErrorHandlerDll/adapters/Libusb.h
    include/ErrorHandlerDll/adapters/Spdlog.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ErrorHandlerDll/adapters COMPONENT Development)

install(EXPORT ErrorHandlerDllTargets NAMESPACE ErrorHandlerDll::
    DESTINATION ${packageFolder} COMPONENT Development)
configure_package_config_file(cmake/ErrorHandlerDllConfig.cmake.in ErrorHandlerDllConfig.cmake
    INSTALL_DESTINATION ${packageFolder} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(ErrorHandlerDllConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/ErrorHandlerDllConfig.cmake
    ${PROJECT_BINARY_DIR}/ErrorHandlerDllConfigVersion.cmake
    DESTINATION ${packageFolder} COMPONENT Development)

# The .pc file finds the prefix from its own place, so the installed tree can be moved.
file(RELATIVE_PATH prefixFromPkgConfig /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" prefixFromPkgConfig "${prefixFromPkgConfig}")
configure_file(cmake/ErrorHandlerDll.pc.in ErrorHandlerDll.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ErrorHandlerDll.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# For those who read logs and dumps, with or without the library (component Tools): the symboliser; its page and those of the
# two formats come from docs/man.
set(toolsFolder ${CMAKE_INSTALL_DATADIR}/errorhandlerdll)
file(READ tools/symbolize_dump.py symboliser)
if(ERRORHANDLERDLL_DEBIAN_PACKAGES)
    string(REPLACE "#!/usr/bin/env python3" "#!/usr/bin/python3" symboliser "${symboliser}") # as Debian prescribes
endif()
file(CONFIGURE OUTPUT tools/symbolize_dump.py CONTENT "${symboliser}" @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS tools/symbolize_dump.py)
install(PROGRAMS ${PROJECT_BINARY_DIR}/tools/symbolize_dump.py DESTINATION ${toolsFolder} COMPONENT Tools)
install(DIRECTORY tools/symbolize DESTINATION ${toolsFolder} COMPONENT Tools FILES_MATCHING PATTERN "*.py")
file(RELATIVE_PATH toolsFromBin /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${toolsFolder})
install(CODE "
    set(bin \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(MAKE_DIRECTORY \"\${bin}\")
    file(CREATE_LINK ${toolsFromBin}/symbolize_dump.py \"\${bin}/errorhandlerdll-symbolize\" SYMBOLIC)" COMPONENT Tools)
