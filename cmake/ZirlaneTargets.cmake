# Helpers shared by every subsystem's CMakeLists.

# Warnings and sanitizers for our own targets (never for the Debian packages).
# __FILE__ names sources from the root of the tree: the error chain shows
# it, and the library must not carry the build machine's paths.
function(zr_target_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wno-unused-parameter
                                           -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
  if(ZR_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(ZR_SANITIZE)
  string(REPLACE ";" "," zr_san "${ZR_SANITIZE}")
  add_compile_options(-fsanitize=${zr_san} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${zr_san})
endif()

# One static library per subsystem folder: zr_<name>, built from every .cpp of
# the folder. Subsystems call into each other both ways (the mount calls the
# database, the database calls back into the mount's lookups), so consumers
# link the whole set through zr_all, a rescanned link group.
set(ZR_SUBSYSTEMS "" CACHE INTERNAL "")
function(zr_add_subsystem name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  if(NOT sources)
    return()
  endif()
  add_library(zr_${name} STATIC ${sources} ${headers})
  target_include_directories(zr_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_compile_definitions(zr_${name} PUBLIC ZR_BUILDING_LIBRARY)
  target_link_libraries(zr_${name} PUBLIC Threads::Threads ${ARGN})
  zr_target_options(zr_${name})
  set(ZR_SUBSYSTEMS ${ZR_SUBSYSTEMS} zr_${name} CACHE INTERNAL "")
endfunction()

# A test binary for one folder of tests/: every .cpp there, with GoogleTest.
function(zr_add_test_folder name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(zr_test_${name} ${sources})
  target_link_libraries(zr_test_${name} PRIVATE zr_all zr_test_support GTest::gtest_main GTest::gmock ${ARGN})
  zr_target_options(zr_test_${name})
  gtest_discover_tests(zr_test_${name}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "ZR_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()
