# vexo_startable(TARGET): tests and the demonstration start this program by its name. The kernel
# does not start one that is for another processor: a script of the name does, by the emulator.
function(vexo_startable target)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    return()
  endif()
  set_target_properties(${target} PROPERTIES SUFFIX .emulated)
  file(
    GENERATE
    OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${target}
    CONTENT
      "#!/bin/sh\nexec ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${target}> \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endfunction()
