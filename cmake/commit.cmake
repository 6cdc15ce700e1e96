# Writes the short commit id into a header at every build, touching it only when it has changed.
cmake_minimum_required(VERSION 3.25)
execute_process(COMMAND git -C "${SOURCE_DIR}" rev-parse --short HEAD
                OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE
                ERROR_QUIET RESULT_VARIABLE failed)
if(failed OR commit STREQUAL "")
    set(commit unknown)
endif()
file(CONFIGURE OUTPUT "${OUTPUT}" CONTENT "#pragma once\n#define GWAD_COMMIT \"${commit}\"\n")
