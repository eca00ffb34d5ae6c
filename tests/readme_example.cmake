# The README's memory-transfer example is examples/memory_pages.c, which the examples suites build and run under both
# source managers; the test readme_example_test passes when the block between the README's markers is that file as it
# stands, and when every example program stays under 150 lines and their shared helper under 70.
#
# Included from tests/CMakeLists.txt, it adds the test; run with -P by that test (-DREADME=<README.md>
# -DEXAMPLES=<the examples directory>), it checks.

if(CMAKE_SCRIPT_MODE_FILE)
  file(READ ${README} text)
  set(begin_marker "<!-- example:examples/memory_pages.c -->\n```c\n")
  set(end_marker "```\n<!-- /example -->")
  string(FIND "${text}" "${begin_marker}" begin)
  if(begin EQUAL -1)
    message(FATAL_ERROR "README.md has no ```c block after <!-- example:examples/memory_pages.c -->")
  endif()
  string(LENGTH "${begin_marker}" length)
  math(EXPR begin "${begin} + ${length}")
  string(SUBSTRING "${text}" ${begin} -1 text)
  string(FIND "${text}" "${end_marker}" end)
  if(end EQUAL -1)
    message(FATAL_ERROR "README.md's memory_pages.c block does not end with ``` and <!-- /example -->")
  endif()
  string(SUBSTRING "${text}" 0 ${end} block)
  file(READ ${EXAMPLES}/memory_pages.c source)
  if(NOT block STREQUAL source)
    message(FATAL_ERROR "README.md's block is not examples/memory_pages.c as it stands: copy the file into it")
  endif()

  file(GLOB programs ${EXAMPLES}/*.c)
  list(LENGTH programs count)
  if(count LESS 4)
    message(FATAL_ERROR "${count} example programs in ${EXAMPLES}, expected 4")
  endif()
  foreach(file IN LISTS programs ITEMS ${EXAMPLES}/result_words.h)
    file(READ ${file} content)
    string(REGEX MATCHALL "\n" newlines "${content}")
    list(LENGTH newlines lines)
    get_filename_component(name ${file} NAME)
    set(limit 150)
    if(name STREQUAL "result_words.h")
      set(limit 70)
    endif()
    message("${name}: ${lines} lines")
    if(NOT lines LESS limit)
      message(FATAL_ERROR "${name} has ${lines} lines: an example stays under 150, the helper under 70")
    endif()
  endforeach()
  return()
endif()

add_test(NAME readme_example_test COMMAND ${CMAKE_COMMAND} -DREADME=${PROJECT_SOURCE_DIR}/README.md
                                          -DEXAMPLES=${PROJECT_SOURCE_DIR}/examples -P ${CMAKE_CURRENT_LIST_FILE})
