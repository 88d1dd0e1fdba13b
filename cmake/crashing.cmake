# vexo_crashing_program(TARGET): a program that uses crash dumps and is to crash. It has no sanitizers
# in any preset, as these take over the fatal signals and the heap's own checks, and want more stack
# than a crash has. Where the library has them, it contains what it needs of the library.
function(vexo_crashing_program target)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" config)
  if(NOT "${CMAKE_CXX_FLAGS_${config}}" MATCHES -fsanitize)
    target_link_libraries(${target} PRIVATE vexo::utils)
    return()
  endif()
  set(plain
      crashdump_folder crashdumps exec exec_helpers fileutils fileutils_move internal/alternate_stack
      internal/late_library internal/path_watch internal/spawn memorymap string_utils timer)
  list(TRANSFORM plain REPLACE "(.+)" "${PROJECT_SOURCE_DIR}/vexo_utils/src/\\1.cpp")
  target_sources(${target} PRIVATE ${plain} ${PROJECT_SOURCE_DIR}/platform/host/src/log.cpp)
  target_include_directories(
    ${target} PRIVATE ${PROJECT_SOURCE_DIR}/vexo_utils/include ${PROJECT_SOURCE_DIR}/vexo_utils/src
                      ${PROJECT_SOURCE_DIR}/platform/include
                      ${PROJECT_SOURCE_DIR}/platform/host/include)
  target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64)
  target_compile_options(${target} PRIVATE -fno-sanitize=all -ffunction-sections)
  target_link_options(${target} PRIVATE -fno-sanitize=all -Wl,--gc-sections -Wl,-z,now)
endfunction()
