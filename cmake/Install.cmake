# Installation, CMake package, pkg-config file and Debian package.
#
# Consumers see only the C header and the shared library: Qt 5 and QuaZip are run-time needs of
# the library (resolved by the loader, stated as package dependencies) and never appear on a
# consumer's compile or link line.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(DATAEXCHANGE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/dataExchange)

# The library with its SONAME links, the public headers, and the command-line tool.
install(TARGETS dataExchange EXPORT dataExchangeTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
if(MINGW AND DATAEXCHANGE_DLLTOOL)
    # For MSVC hosts: the import library and the export list beside the MinGW import library.
    install(FILES ${CMAKE_BINARY_DIR}/dataExchange.lib ${DATAEXCHANGE_DEF}
        DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
if(NOT APPLE AND NOT WIN32)
    # Finds the library of the same prefix wherever the prefix is.
    file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(dataexchange-upload PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
endif()
install(TARGETS dataexchange-upload RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# CMake package: find_package(dataExchange 2.0 CONFIG) -> dataExchange::dataExchange.
install(EXPORT dataExchangeTargets NAMESPACE dataExchange::
    DESTINATION ${DATAEXCHANGE_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/dataExchangeConfig.cmake.in
    ${PROJECT_BINARY_DIR}/dataExchangeConfig.cmake INSTALL_DESTINATION ${DATAEXCHANGE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/dataExchangeConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/dataExchangeConfig.cmake
    ${PROJECT_BINARY_DIR}/dataExchangeConfigVersion.cmake DESTINATION ${DATAEXCHANGE_CMAKE_DIR})

# pkg-config: relocatable, the prefix is found from the file's own place.
set(DATAEXCHANGE_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_PREFIX}/${DATAEXCHANGE_PC_DIR}
    ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/dataExchange.pc.in
    ${PROJECT_BINARY_DIR}/dataExchange.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/dataExchange.pc DESTINATION ${DATAEXCHANGE_PC_DIR})

set(CPACK_PACKAGE_VENDOR "dataExchange developers")
set(CPACK_PACKAGE_CONTACT "dataExchange developers <dataexchange@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Uploads measurement data of optical tracking devices to the processing site")
set(CPACK_STRIP_FILES ON)

# Windows: cpack -G ZIP in the build folder gives dataExchange-<version>-win64.zip, the install
# tree under one top folder. Windows has no package manager to bring the run-time, so bin/ also
# holds every DLL the library and the tool load: Qt 5 Core + Network, QuaZip, zlib, OpenSSL 3
# (Qt Network loads libssl and libcrypto), libcurl (the streaming upload) and the MinGW C++
# run-time, taken from the prefix of the Qt found (the one scripts/windows-deps.sh builds, already
# stripped), with that prefix's licence texts. Windows' own DLLs (KERNEL32, WS2_32, ...) are not shipped.
if(WIN32)
    get_target_property(DATAEXCHANGE_QT5CORE_DLL Qt5::Core LOCATION)
    get_filename_component(DATAEXCHANGE_RUNTIME_DIR ${DATAEXCHANGE_QT5CORE_DLL} DIRECTORY)
    get_filename_component(DATAEXCHANGE_RUNTIME_PREFIX ${DATAEXCHANGE_RUNTIME_DIR} DIRECTORY)
    install(FILES $<TARGET_FILE:Qt5::Core> $<TARGET_FILE:Qt5::Network>
        $<TARGET_FILE:QuaZip::QuaZip> ${DATAEXCHANGE_RUNTIME_DIR}/zlib1.dll
        ${DATAEXCHANGE_RUNTIME_DIR}/libssl-3-x64.dll ${DATAEXCHANGE_RUNTIME_DIR}/libcrypto-3-x64.dll
        ${DATAEXCHANGE_RUNTIME_DIR}/libstdc++-6.dll ${DATAEXCHANGE_RUNTIME_DIR}/libgcc_s_seh-1.dll
        ${DATAEXCHANGE_RUNTIME_DIR}/libwinpthread-1.dll
        DESTINATION ${CMAKE_INSTALL_BINDIR})
    # Loaded by the streaming upload when a host switches it on, from beside dataExchange.dll.
    if(TARGET CURL::libcurl)
        install(FILES $<TARGET_FILE:CURL::libcurl> DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
    install(FILES ${PROJECT_SOURCE_DIR}/docs/api.md DESTINATION docs)
    install(DIRECTORY ${DATAEXCHANGE_RUNTIME_PREFIX}/licenses/ DESTINATION licenses)
    set(CPACK_PACKAGE_NAME dataExchange)
    set(CPACK_PACKAGE_FILE_NAME dataExchange-${PROJECT_VERSION}-win64)
    set(CPACK_GENERATOR ZIP)
    include(CPack)
    return()
endif()

# Debian package: cpack -G DEB. Its dependencies come from dpkg-shlibdeps (Qt 5, QuaZip, C++
# run-time), its shlibs file and ldconfig trigger from CPack.
set(CPACK_PACKAGE_NAME dataexchange)
set(CPACK_PACKAGE_DESCRIPTION
    "A shared library with a plain C interface (libdataExchange.so.2, dataExchange.h) that packs\
 a file or folder and delivers it to a shared folder or to the processing server over HTTP(S);\
 with the command-line tool dataexchange-upload, a CMake package and a pkg-config file.")
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The streaming upload loads libcurl and OpenSSL when a host switches it on (the tool does by
# default, and falls back to Qt without them), so dpkg-shlibdeps cannot see them.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libcurl4, libssl3")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
