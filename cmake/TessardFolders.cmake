# tessard_folder(NAME [FOLDER...]): the static library tessard_NAME of all sources in folder NAME, linked with
# the libraries of the folders that it may use. A new source file in the folder needs no further entry.
function(tessard_folder name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${name}/*.cpp)
  if(NOT sources)
    add_library(tessard_${name} INTERFACE)
    return()
  endif()
  add_library(tessard_${name} STATIC ${sources})
  foreach(used IN LISTS ARGN)
    target_link_libraries(tessard_${name} PUBLIC tessard_${used})
  endforeach()
endfunction()

# tessard_test(NAME LIBRARY...): the GoogleTest program test_NAME of all *_test.cpp in tests/NAME.
function(tessard_test name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${name}/*_test.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(test_${name} ${sources})
  target_link_libraries(test_${name} PRIVATE ${ARGN} tessard_test_support GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND test_${name})
endfunction()
