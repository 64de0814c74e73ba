# Builds the Python binding's wheel into OUTPUT: the project of SOURCE (bindings/python) copied
# into WORK and built there by PYTHON's pip, offline and with the setuptools and wheel installed
# beside it, at the library's VERSION. Given BIN, a Windows install's bin/, its DLLs but EXCLUDE
# (the .NET assembly) go beside the module with the licence texts of LICENSES: the win_amd64
# wheel. Run with cmake -P, or included with these variables set.
file(REMOVE_RECURSE ${WORK})
file(COPY ${SOURCE}/ DESTINATION ${WORK}
    PATTERN __pycache__ EXCLUDE PATTERN build EXCLUDE PATTERN *.egg-info EXCLUDE)
if(BIN)
    file(GLOB dlls ${BIN}/*.dll)
    list(REMOVE_ITEM dlls ${BIN}/${EXCLUDE})
    file(COPY ${dlls} DESTINATION ${WORK}/dataexchange)
    file(COPY ${LICENSES}/ DESTINATION ${WORK}/dataexchange/licenses)
endif()
file(GLOB previous ${OUTPUT}/dataexchange-*.whl)
if(previous)
    file(REMOVE ${previous})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env DATAEXCHANGE_VERSION=${VERSION}
    ${PYTHON} -m pip wheel --quiet --no-build-isolation --no-deps --no-index --no-cache-dir
    --wheel-dir ${OUTPUT} ${WORK} RESULT_VARIABLE failed)
if(failed)
    message(FATAL_ERROR "pip could not build the wheel of ${WORK}")
endif()
