# The README's example of an acquisition by memory transfer, compiled exactly as it stands between its markers and
# run against the virtual scanner in the stand-in's prefix.
#
# Included from tests/CMakeLists.txt, it extracts the example at configure time (editing README.md configures again),
# builds it as a C program linked through the MinGW import library, and adds the test readme_memory_acquire_test.
# Run with -P by that test, it puts the stand-in TWAIN_32.DLL and the scanner (nothing else) in the prefix, runs the
# program, takes both away again, and passes when the program exits with 0 after one line for each of three pages.

if(CMAKE_SCRIPT_MODE_FILE)
  # -DPREFIX=<wine prefix> -DDSM=<testdsm.dll> -DSCANNER=<vscan.ds> -DWINE_RUN=<wine-run> -DEXAMPLE=<program>
  set(windows ${PREFIX}/drive_c/windows)
  # Wine finds files whatever their case: every spelling of TWAIN_32.DLL goes, and sources left by other programs
  # would change which source is the default.
  file(GLOB entries RELATIVE ${windows} ${windows}/*)
  foreach(entry IN LISTS entries)
    string(TOLOWER "${entry}" lower)
    if(lower STREQUAL "twain_32.dll")
      file(REMOVE ${windows}/${entry})
    elseif(lower STREQUAL "twain_32" OR lower STREQUAL "twain")
      file(REMOVE_RECURSE ${windows}/${entry})
    endif()
  endforeach()
  file(COPY_FILE ${DSM} ${windows}/TWAIN_32.DLL)
  file(MAKE_DIRECTORY ${windows}/twain_32)
  file(COPY_FILE ${SCANNER} ${windows}/twain_32/vscan.ds)

  execute_process(COMMAND ${WINE_RUN} ${EXAMPLE} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors
                  TIMEOUT 100)

  file(REMOVE ${windows}/TWAIN_32.DLL)
  file(REMOVE_RECURSE ${windows}/twain_32)
  string(REPLACE "\r" "" output "${output}")
  message("${output}${errors}")
  if(NOT result STREQUAL "0")
    message(FATAL_ERROR "the example ended with ${result}, expected 0")
  endif()
  set(page "[0-9]+ x [0-9]+ pixels, [0-9]+ bytes in [0-9]+ blocks, result 0\n")
  if(NOT output MATCHES "^page 1: ${page}page 2: ${page}page 3: ${page}$")
    message(FATAL_ERROR "the example did not print one line for each of three pages")
  endif()
  return()
endif()

set(readme ${PROJECT_SOURCE_DIR}/README.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${readme})
file(READ ${readme} text)
set(begin_marker "<!-- example:memory-acquire -->\n```c\n")
set(end_marker "```\n<!-- /example -->")
string(FIND "${text}" "${begin_marker}" begin)
if(begin EQUAL -1)
  message(FATAL_ERROR "README.md has no ```c block after <!-- example:memory-acquire -->")
endif()
string(LENGTH "${begin_marker}" length)
math(EXPR begin "${begin} + ${length}")
string(SUBSTRING "${text}" ${begin} -1 text)
string(FIND "${text}" "${end_marker}" end)
if(end EQUAL -1)
  message(FATAL_ERROR "README.md's memory-acquire example does not end with ``` and <!-- /example -->")
endif()
string(SUBSTRING "${text}" 0 ${end} code)
# Copied only when it changed, so that configuring again rebuilds nothing.
set(example_dir ${CMAKE_CURRENT_BINARY_DIR}/readme_example)
file(WRITE ${example_dir}/memory_acquire.c.extracted "${code}")
configure_file(${example_dir}/memory_acquire.c.extracted ${example_dir}/memory_acquire.c COPYONLY)

add_executable(readme_memory_acquire ${example_dir}/memory_acquire.c)
target_include_directories(readme_memory_acquire PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(readme_memory_acquire PRIVATE ${CMAKE_BINARY_DIR}/lib/libsmkernal.dll.a)
target_compile_options(readme_memory_acquire PRIVATE -Wall -Wextra -Werror)
# In a directory of its own with its copy of smkernal.dll, away from the settings files other programs leave in bin.
set_target_properties(readme_memory_acquire PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${example_dir})
add_custom_command(TARGET readme_memory_acquire POST_BUILD
                   COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:smkernal> ${example_dir})
add_dependencies(readme_memory_acquire smkernal testdsm vscan)
add_test(NAME readme_memory_acquire_test
         COMMAND ${CMAKE_COMMAND} -DPREFIX=${SMK_WINEPREFIX} -DDSM=$<TARGET_FILE:testdsm>
                 -DSCANNER=$<TARGET_FILE:vscan> -DWINE_RUN=${CMAKE_BINARY_DIR}/wine-run
                 -DEXAMPLE=$<TARGET_FILE:readme_memory_acquire>
                 -P ${CMAKE_CURRENT_LIST_FILE})
set_tests_properties(readme_memory_acquire_test PROPERTIES RESOURCE_LOCK wineprefix TIMEOUT 120)
