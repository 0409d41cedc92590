# One static library per subsystem folder. Sources are globbed so that adding a
# file to a folder needs no edit here; the folder's dependencies are explicit,
# so an include that crosses the layering fails to link.
function(tamsel_subsystem name)
  cmake_parse_arguments(ARG "" "" "DEPS;PUBLIC_LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(sources)
    set(scope PUBLIC)
    add_library(tamsel_${name} STATIC ${sources})
  else()
    # A folder whose code has not arrived yet still takes part in the layering.
    set(scope INTERFACE)
    add_library(tamsel_${name} INTERFACE)
  endif()
  target_include_directories(tamsel_${name} ${scope}
      ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/generated)
  foreach(dep IN LISTS ARG_DEPS)
    target_link_libraries(tamsel_${name} ${scope} tamsel_${dep})
  endforeach()
  target_link_libraries(tamsel_${name} ${scope} ${ARG_PUBLIC_LIBS})
endfunction()

# tests/<folder>/*.cpp become one test executable per subsystem.
function(tamsel_test_suite name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(tamsel_${name}_tests ${sources})
  target_link_libraries(tamsel_${name}_tests PRIVATE ${ARG_LIBS} tamsel_testsupport
                        GTest::gmock GTest::gtest_main)
  target_compile_definitions(tamsel_${name}_tests PRIVATE
      TAMSEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
      TAMSEL_BINARY_DIR="${PROJECT_BINARY_DIR}")
  gtest_discover_tests(tamsel_${name}_tests DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 300)
endfunction()
