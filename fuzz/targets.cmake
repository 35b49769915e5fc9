# The fuzz targets, one per decoder of outside input, shared by the libFuzzer
# build (fuzz/CMakeLists.txt) and the corpus replay of the normal build
# (tests/CMakeLists.txt). Each target is fuzz/<name>_fuzzer.cc with its
# corpus in fuzz/corpus/<name>.
set(ORVI_FUZZ_TARGETS parse rest conversation sync tool_calls codec history)
if(TARGET orvi_emulator_core)
  list(APPEND ORVI_FUZZ_TARGETS emulator)
endif()

# Links `target`, built from the fuzz target `name`, with what it exercises.
function(orvi_fuzz_target_link target name)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/fuzz ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${target} PRIVATE orvi_internal)
  if(name STREQUAL "emulator")
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/apps/emulator)
    target_link_libraries(${target} PRIVATE orvi_emulator_core)
  endif()
endfunction()
