# libFuzzer targets for the watch path and the record path. The module's
# sources are compiled in again with coverage, so that libFuzzer sees the
# branches of the module, not only those of the harness.

set(FUZZ_MODULE_SOURCES)
foreach(part ftrace_catalogue ftrace_reader ftrace_task)
  get_target_property(part_sources ${part} SOURCES)
  list(APPEND FUZZ_MODULE_SOURCES ${part_sources})
endforeach()
add_library(ftrace_fuzz_module STATIC ${FUZZ_MODULE_SOURCES})
target_compile_options(ftrace_fuzz_module PUBLIC -fsanitize=fuzzer-no-link,address,undefined
  -fno-sanitize-recover=undefined)
target_compile_definitions(ftrace_fuzz_module PUBLIC FTRACE_FIXTURES_ROOT="${PROJECT_SOURCE_DIR}/tests/fixtures")
target_include_directories(ftrace_fuzz_module PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/tests/reader ${PROJECT_SOURCE_DIR}/tests/support ${PROJECT_SOURCE_DIR}/tests/task)
target_link_libraries(ftrace_fuzz_module PUBLIC ftrace_module_headers platform_with_poco
  PkgConfig::TRACEEVENT PkgConfig::TRACEFS)

# ftrace_add_fuzzer(<name> <source> <corpus dir> <max_len>): a target and a short CI run over its seeds.
function(ftrace_add_fuzzer name source corpus max_len)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ftrace_fuzz_module)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  set(work ${CMAKE_CURRENT_BINARY_DIR}/corpus/${corpus})
  file(MAKE_DIRECTORY ${work})
  add_test(NAME fuzz_${corpus}
    COMMAND ${name} -max_total_time=10 -timeout=10 -max_len=${max_len} -rss_limit_mb=2048
            ${work} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${corpus})
  set_tests_properties(fuzz_${corpus} PROPERTIES LABELS fuzz TIMEOUT 90)
endfunction()

ftrace_add_fuzzer(watch_path_fuzzer WatchPathFuzzer.cpp watch_path 512)
ftrace_add_fuzzer(record_path_fuzzer RecordPathFuzzer.cpp record_path 4200)
