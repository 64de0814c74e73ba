# The bindings as their users install them: the Python binding as a wheel (pip install), the .NET
# binding as a NuGet package. Included after the install rules of everything else.
#
# Linux: the pure wheel, which finds the installed library, is built with the library and
# installed under share/dataExchange/python/. Windows: the win_amd64 wheel and the .nupkg are made
# by the install itself, from what it has put into bin/ by then, so that they carry every DLL
# shipped there; they go to python/ and nuget/ (a folder NuGet takes as a local feed) of the
# install and so of the win64 zip. The wheel needs the host's Python with setuptools, wheel and
# pip (Debian's python3-setuptools, python3-wheel, python3-pip); pip builds it offline.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
    execute_process(COMMAND ${Python3_EXECUTABLE} -c "import setuptools, wheel, pip"
        RESULT_VARIABLE DATAEXCHANGE_NO_WHEEL OUTPUT_QUIET ERROR_QUIET)
endif()
if(NOT Python3_Interpreter_FOUND OR DATAEXCHANGE_NO_WHEEL)
    message(STATUS "No Python with setuptools, wheel and pip: the Python wheel is not built")
    set(DATAEXCHANGE_NO_WHEEL ON)
endif()

if(NOT WIN32)
    if(DATAEXCHANGE_NO_WHEEL)
        return()
    endif()
    set(DATAEXCHANGE_WHEEL
        ${CMAKE_BINARY_DIR}/python/dataexchange-${PROJECT_VERSION}-py3-none-any.whl)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/bindings/python/*.*
        ${PROJECT_SOURCE_DIR}/bindings/python/dataexchange/*.py)
    add_custom_command(OUTPUT ${DATAEXCHANGE_WHEEL}
        COMMAND ${CMAKE_COMMAND} -DPYTHON=${Python3_EXECUTABLE}
                -DSOURCE=${PROJECT_SOURCE_DIR}/bindings/python -DVERSION=${PROJECT_VERSION}
                -DWORK=${CMAKE_BINARY_DIR}/python/project -DOUTPUT=${CMAKE_BINARY_DIR}/python
                -P ${PROJECT_SOURCE_DIR}/cmake/PythonWheel.cmake
        DEPENDS ${sources} ${PROJECT_SOURCE_DIR}/cmake/PythonWheel.cmake
        COMMENT "Building the Python wheel")
    add_custom_target(dataExchangePythonWheel ALL DEPENDS ${DATAEXCHANGE_WHEEL})
    install(FILES ${DATAEXCHANGE_WHEEL} DESTINATION ${CMAKE_INSTALL_DATADIR}/dataExchange/python)
    return()
endif()

# Install-time values: where the install (or cpack's staging) puts the files.
set(prefix "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}")
if(NOT DATAEXCHANGE_NO_WHEEL)
    install(CODE "set(PYTHON \"${Python3_EXECUTABLE}\")
        set(SOURCE \"${PROJECT_SOURCE_DIR}/bindings/python\")
        set(VERSION ${PROJECT_VERSION})
        set(BIN \"${prefix}/${CMAKE_INSTALL_BINDIR}\")
        set(EXCLUDE DataExchange.Net.dll)
        set(LICENSES \"${prefix}/licenses\")
        set(WORK \"${CMAKE_BINARY_DIR}/python/project\")
        set(OUTPUT \"${prefix}/python\")
        include(\"${PROJECT_SOURCE_DIR}/cmake/PythonWheel.cmake\")")
endif()
if(TARGET dataExchangeDotNet)
    set(DATAEXCHANGE_REPOSITORY_URL "" CACHE STRING
        "The source repository that the NuGet package names, if any")
    install(CODE "set(ID DataExchange.Net)
        set(SOURCE \"${PROJECT_SOURCE_DIR}/bindings/dotnet\")
        set(VERSION ${PROJECT_VERSION})
        set(BIN \"${prefix}/${CMAKE_INSTALL_BINDIR}\")
        set(LICENSES \"${prefix}/licenses\")
        set(REPOSITORY \"${DATAEXCHANGE_REPOSITORY_URL}\")
        execute_process(COMMAND git rev-parse HEAD WORKING_DIRECTORY \"${PROJECT_SOURCE_DIR}\"
            OUTPUT_VARIABLE COMMIT OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        set(WORK \"${CMAKE_BINARY_DIR}/nuget/package\")
        set(OUTPUT \"${prefix}/nuget\")
        include(\"${PROJECT_SOURCE_DIR}/cmake/NuGetPackage.cmake\")")
endif()
