# Unit tests of a cross build, run by CMAKE_CROSSCOMPILING_EMULATOR. A program takes long to start there, so a test of
# CTest is not one case, but a share of a program's cases.

# The cases that the emulator cannot hold: a name a line, what follows "#" is the reason.
set(EMULATION_EXCLUSIONS "${CMAKE_SOURCE_DIR}/tests/unit/not_under_emulation.txt")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${EMULATION_EXCLUSIONS}")
file(STRINGS "${EMULATION_EXCLUSIONS}" exclusion_lines REGEX "^[A-Za-z]")
set(EXCLUDED_CASES "")
foreach(line IN LISTS exclusion_lines)
  if(NOT line MATCHES "^([A-Za-z0-9_]+)\\.([A-Za-z0-9_]+) +# .+")
    message(FATAL_ERROR "${EMULATION_EXCLUSIONS}: not a case and its reason: ${line}")
  endif()
  list(APPEND EXCLUDED_CASES "${CMAKE_MATCH_1}.${CMAKE_MATCH_2}")
endforeach()
list(LENGTH EXCLUDED_CASES excluded_count)
message(STATUS "Cases that are not run under the emulator: ${excluded_count}, see ${EMULATION_EXCLUSIONS}")
list(JOIN EXCLUDED_CASES ":" EXCLUDED_CASES)

# Programs are cut into shares of about this many source files, so that every core has something to do.
set(EMULATED_FILES_A_SHARE 4)

# Nor could one share end in time whose few cases do the same thousands of times over.
set(EMULATED_SHARES_x509memory 8)

# A program that starts itself again, as tests of a process's end do, could not be run without the emulator: it is
# told the name of this script instead of its own, by the program loader that the emulator runs.
function(keyward_emulated_program program)
  string(REPLACE ";" " " emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  file(GENERATE OUTPUT "$<TARGET_FILE:${program}>.emulated"
    CONTENT "#!/bin/sh\nexec ${emulator} --argv0 \"$0\" \"$<TARGET_FILE:${program}>\" \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endfunction()

function(keyward_emulated_tests program prefix)
  keyward_emulated_program(${program})
  get_target_property(sources ${program} SOURCES)
  list(LENGTH sources count)
  math(EXPR shares "(${count} + ${EMULATED_FILES_A_SHARE} - 1) / ${EMULATED_FILES_A_SHARE}")
  if(DEFINED EMULATED_SHARES_${prefix})
    set(shares ${EMULATED_SHARES_${prefix}})
  endif()
  math(EXPR last "${shares} - 1")
  foreach(share RANGE ${last})
    add_test(NAME ${prefix}.${share}
      COMMAND "$<TARGET_FILE:${program}>.emulated" --gtest_brief=1 "--gtest_filter=-${EXCLUDED_CASES}")
    # The longest takes 40 seconds. Now and then qemu-user hangs when a program with threads starts another one: the
    # new process waits for a lock of the emulator's own. Such a run is given up and tried again.
    set_tests_properties(${prefix}.${share} PROPERTIES TIMEOUT 200
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${shares};GTEST_SHARD_INDEX=${share}")
  endforeach()
endfunction()
