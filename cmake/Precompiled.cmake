# Headers that most files read, read once: for the builds in which people wait for the tests. The packages are built
# without them, which shows that each file includes what it uses.
option(KEYWARD_PRECOMPILE "Precompile the headers that most files include" OFF)

# The first target makes them; further ones with the same options use them again.
function(keyward_precompile target)
  if(NOT KEYWARD_PRECOMPILE)
    return()
  endif()
  target_precompile_headers(${target} PRIVATE ${ARGN})
endfunction()

function(keyward_precompiled target maker)
  if(KEYWARD_PRECOMPILE)
    target_precompile_headers(${target} REUSE_FROM ${maker})
  endif()
endfunction()
