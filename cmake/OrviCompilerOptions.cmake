# Warnings, sanitizers and reproducible source paths for every target.

add_compile_options(-Wall -Wextra -Wpedantic)

# Log lines carry the source path; print it relative to the source tree so
# they do not depend on where the tree was checked out.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(ORVI_SANITIZE)
  if(ORVI_SANITIZE STREQUAL "thread")
    set(_orvi_san_flags -fsanitize=thread)
  elseif(ORVI_SANITIZE MATCHES "^(address|undefined)(,(address|undefined))?$")
    set(_orvi_san_flags -fsanitize=${ORVI_SANITIZE} -fno-sanitize-recover=all)
  else()
    message(FATAL_ERROR "ORVI_SANITIZE must be 'address,undefined' or 'thread', not '${ORVI_SANITIZE}'")
  endif()
  add_compile_options(${_orvi_san_flags} -fno-omit-frame-pointer)
  add_link_options(${_orvi_san_flags})
endif()

# Fuzzing instruments every target for coverage; only the fuzzers themselves
# link libFuzzer's driver.
if(ORVI_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
