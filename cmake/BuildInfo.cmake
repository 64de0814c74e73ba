# Writes OUTPUT with the source revision and the build time. Called at every build; the file is
# rewritten only when the revision changed (or it does not exist yet).
execute_process(COMMAND git rev-parse HEAD WORKING_DIRECTORY ${SOURCE_DIR}
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed
    ERROR_QUIET)
string(LENGTH "${commit}" length)
if(failed OR NOT length EQUAL 40 OR NOT commit MATCHES "^[0-9a-f]+$")
    set(commit "0000000000000000000000000000000000000000")
endif()
if(EXISTS ${OUTPUT})
    file(READ ${OUTPUT} previous)
    if(previous MATCHES "commit ${commit} platform ${PLATFORM}\n")
        return()
    endif()
endif()
# string(TIMESTAMP) honours SOURCE_DATE_EPOCH, which makes builds reproducible.
string(TIMESTAMP seconds "%s" UTC)
file(WRITE ${OUTPUT} "// Generated at build time: commit ${commit} platform ${PLATFORM}
namespace measurement::dataExchange::buildInfo {
extern const char* const commit;
extern const char* const seconds;
extern const char* const platform;
const char* const commit = \"${commit}\";
const char* const seconds = \"${seconds}\";
const char* const platform = \"${PLATFORM}\";
}
")
