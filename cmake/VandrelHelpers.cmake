# Shared compile settings and the one-library-per-folder convention.

add_library(vandrel_options INTERFACE)
target_compile_definitions(vandrel_options INTERFACE
  QT_NO_KEYWORDS QT_NO_FOREACH QT_NO_URL_CAST_FROM_STRING
  VANDREL_VERSION="${PROJECT_VERSION}" VANDREL_BUILD_VERSION="${PROJECT_VERSION_MAJOR}${PROJECT_VERSION_MINOR}${PROJECT_VERSION_PATCH}")
target_compile_options(vandrel_options INTERFACE -Wall -Wextra -Wno-missing-field-initializers)
if(VANDREL_WERROR)
  target_compile_options(vandrel_options INTERFACE -Werror)
endif()
if(VANDREL_SANITIZE)
  target_compile_options(vandrel_options INTERFACE -fsanitize=address,undefined -fno-omit-frame-pointer
                                                  -fno-sanitize-recover=undefined)
  target_link_options(vandrel_options INTERFACE -fsanitize=address,undefined)
endif()
if(VANDREL_FUZZ)
  # Every library is instrumented for coverage so the fuzzers see into it.
  target_compile_options(vandrel_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined)
  target_link_options(vandrel_options INTERFACE -fsanitize=address,undefined)
endif()

# vandrel_library(<folder> DEPS <targets...>)
# Builds src/<folder>/*.cpp into the static library vandrel_<folder>.
function(vandrel_library folder)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/*/*.cpp")
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  file(GLOB headers CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.h" "${CMAKE_CURRENT_SOURCE_DIR}/*/*.h")
  # A subfolder with its own CMakeLists.txt is a library of its own (src/app/desktop).
  file(GLOB own_builds "${CMAKE_CURRENT_SOURCE_DIR}/*/CMakeLists.txt")
  foreach(own_build ${own_builds})
    get_filename_component(own_folder "${own_build}" DIRECTORY)
    list(FILTER sources EXCLUDE REGEX "^${own_folder}/")
    list(FILTER headers EXCLUDE REGEX "^${own_folder}/")
  endforeach()
  if(NOT sources)
    # A folder whose code is still to come: its dependants link nothing from it yet.
    add_library(vandrel_${folder} INTERFACE)
    target_link_libraries(vandrel_${folder} INTERFACE vandrel_options ${ARG_DEPS})
    return()
  endif()
  add_library(vandrel_${folder} STATIC ${sources} ${headers})
  set_target_properties(vandrel_${folder} PROPERTIES AUTOMOC ON POSITION_INDEPENDENT_CODE ON)
  target_include_directories(vandrel_${folder} PUBLIC "${PROJECT_SOURCE_DIR}/src")
  target_link_libraries(vandrel_${folder} PUBLIC vandrel_options ${ARG_DEPS})
endfunction()

# vandrel_test(<folder> DEPS <targets...>)
# Builds tests/<folder>/*.cpp into one GoogleTest executable and registers its cases with ctest.
function(vandrel_test folder)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(test_${folder} ${sources})
  set_target_properties(test_${folder} PROPERTIES AUTOMOC ON)
  target_link_libraries(test_${folder} PRIVATE vandrel_testsupport ${ARG_DEPS})
  gtest_discover_tests(test_${folder} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
