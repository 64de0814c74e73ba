# Builds the .NET binding's NuGet package ID.VERSION.nupkg into OUTPUT from a Windows install: the
# assembly ID.dll of BIN with its documentation under lib/net45/, every other DLL of BIN under
# runtimes/win-x64/native/, ID.targets of SOURCE under build/net45/, the licence texts of LICENSES,
# and ID.nuspec made from package-metadata.xml.in of SOURCE. net45, as the assembly is a .NET
# Framework 4.5 one (built against those reference assemblies alone, no netstandard.dll): .NET
# Framework projects take it as it is, .NET 6+ ones through NuGet's .NET Framework fallback, and
# both load it.
# A .nupkg is a zip in the Open Packaging Conventions: the parts' types listed in
# [Content_Types].xml, the manifest and the core properties named by _rels/.rels. The staging
# folder is WORK; REPOSITORY and COMMIT (optional) name the source. Run with cmake -P, or
# included with these variables set.
file(REMOVE_RECURSE ${WORK})
file(COPY ${BIN}/${ID}.dll ${BIN}/${ID}.xml DESTINATION ${WORK}/lib/net45)
file(GLOB dlls ${BIN}/*.dll)
list(REMOVE_ITEM dlls ${BIN}/${ID}.dll)
file(COPY ${dlls} DESTINATION ${WORK}/runtimes/win-x64/native)
file(COPY ${SOURCE}/${ID}.targets DESTINATION ${WORK}/build/net45)
file(COPY ${LICENSES}/ DESTINATION ${WORK}/licenses)
file(GLOB components RELATIVE ${LICENSES} ${LICENSES}/*)
string(REPLACE ";" ", " components "${components}")
file(WRITE ${WORK}/LICENSE.txt "${ID} and dataExchange.dll ${VERSION}: the dataExchange developers.
The other DLLs in runtimes/win-x64/native/ are third-party libraries under their own licences,
whose texts are in licenses/ (${components}).
")
set(REPOSITORY_ATTRIBUTES "type=\"git\"")
if(REPOSITORY)
    string(APPEND REPOSITORY_ATTRIBUTES " url=\"${REPOSITORY}\"")
endif()
if(COMMIT)
    string(APPEND REPOSITORY_ATTRIBUTES " commit=\"${COMMIT}\"")
endif()
# The package metadata NuGet reads, named after the package inside it.
configure_file(${SOURCE}/package-metadata.xml.in ${WORK}/${ID}.nuspec @ONLY)

file(GLOB_RECURSE parts RELATIVE ${WORK} ${WORK}/*)
set(octet "ContentType=\"application/octet\"")
set(types "")
foreach(part ${parts})
    get_filename_component(name ${part} NAME)
    if(name MATCHES "\\.([^.]+)$")
        string(TOLOWER ${CMAKE_MATCH_1} extension)
        string(FIND "${types}" "\"${extension}\"" seen)
        if(seen EQUAL -1)
            string(APPEND types "  <Default Extension=\"${extension}\" ${octet}/>\n")
        endif()
    else()
        string(APPEND types "  <Override PartName=\"/${part}\" ${octet}/>\n")
    endif()
endforeach()
set(opc http://schemas.openxmlformats.org/package/2006)
set(xml "<?xml version=\"1.0\" encoding=\"utf-8\"?>")
set(properties package/services/metadata/core-properties/${ID}.psmdcp)
file(WRITE ${WORK}/${properties} "${xml}
<coreProperties xmlns:dc=\"http://purl.org/dc/elements/1.1/\"
    xmlns=\"${opc}/metadata/core-properties\">
  <dc:creator>dataExchange developers</dc:creator>
  <dc:identifier>${ID}</dc:identifier>
  <version>${VERSION}</version>
</coreProperties>
")
file(WRITE ${WORK}/_rels/.rels "${xml}
<Relationships xmlns=\"${opc}/relationships\">
  <Relationship Id=\"manifest\" Target=\"/${ID}.nuspec\"
      Type=\"http://schemas.microsoft.com/packaging/2010/07/manifest\"/>
  <Relationship Id=\"properties\" Target=\"/${properties}\"
      Type=\"${opc}/relationships/metadata/core-properties\"/>
</Relationships>
")
file(WRITE "${WORK}/[Content_Types].xml" "${xml}
<Types xmlns=\"${opc}/content-types\">
  <Default Extension=\"rels\"
      ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>
  <Default Extension=\"psmdcp\"
      ContentType=\"application/vnd.openxmlformats-package.core-properties+xml\"/>
${types}</Types>
")
file(MAKE_DIRECTORY ${OUTPUT})
execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${OUTPUT}/${ID}.${VERSION}.nupkg --format=zip
    -- "[Content_Types].xml" _rels/.rels ${properties} ${parts}
    WORKING_DIRECTORY ${WORK} RESULT_VARIABLE failed)
if(failed)
    message(FATAL_ERROR "could not zip ${OUTPUT}/${ID}.${VERSION}.nupkg")
endif()
