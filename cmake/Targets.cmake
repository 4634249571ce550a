# What every target of ours has in common.

add_library(korvel_options INTERFACE)
target_include_directories(korvel_options INTERFACE ${PROJECT_SOURCE_DIR}
                                                    ${PROJECT_SOURCE_DIR}/PI/include)
# Compilers take strings that are moved and then compared for uninitialised ones.
target_compile_options(korvel_options INTERFACE -Wall -Wextra -Wno-missing-field-initializers
                                                -Wno-maybe-uninitialized
                                                -fno-semantic-interposition)
if(KORVEL_WERROR)
  target_compile_options(korvel_options INTERFACE -Werror)
endif()
if(KORVEL_SANITIZE)
  add_compile_options(-fsanitize=${KORVEL_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KORVEL_SANITIZE})
  add_compile_definitions(KORVEL_SANITIZED)
endif()

# A finding ends the process in which it is made, so that a test fails also when it is the process
# of an agent or a forwarder that the test has started. Debian's gRPC and Abseil are not built for
# ThreadSanitizer, which would take their way of synchronising for races; nor does gRPC join the last
# ended threads of its pools before the process exits.
set(KORVEL_SANITIZER_OPTIONS
  "ASAN_OPTIONS=abort_on_error=1:detect_stack_use_after_return=1"
  "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
  "TSAN_OPTIONS=halt_on_error=1:abort_on_error=1:second_deadlock_stack=1:report_thread_leaks=0:ignore_noninstrumented_modules=1")

# The libraries of the programs lie in a folder of their own, and find each other there.
set(KORVEL_LIBRARY_DIR ${CMAKE_INSTALL_LIBDIR}/korvel)
function(korvel_install_library NAME)
  set_target_properties(${NAME} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${NAME} LIBRARY DESTINATION ${KORVEL_LIBRARY_DIR} COMPONENT programs)
endfunction()

# korvel_library(NAME SOURCES a.cpp ... DEPS lib ... [PRIVATE_DEPS lib ...] [STATIC])
# A library of one folder. Shared unless STATIC: the launcher, the agent's plug-in and the tools
# run in one process and must find one copy of each singleton.
function(korvel_library NAME)
  cmake_parse_arguments(A "STATIC" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  if(A_STATIC)
    add_library(${NAME} STATIC ${A_SOURCES})
  else()
    add_library(${NAME} SHARED ${A_SOURCES})
    korvel_install_library(${NAME})
  endif()
  target_link_libraries(${NAME} PUBLIC korvel_options ${A_DEPS} PRIVATE ${A_PRIVATE_DEPS})
endfunction()

# korvel_test(NAME SOURCES a.cpp ... DEPS lib ... [LABELS unit|e2e ...])
function(korvel_test NAME)
  cmake_parse_arguments(A "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${NAME} ${A_SOURCES})
  target_link_libraries(${NAME} PRIVATE korvel_options ${A_DEPS} test_files GTest::gtest
                                        GTest::gmock GTest::gtest_main)
  add_test(NAME ${NAME} COMMAND ${NAME})
  if(NOT A_LABELS)
    set(A_LABELS unit)
  endif()
  set_tests_properties(${NAME} PROPERTIES LABELS "${A_LABELS}" TIMEOUT 300)
  if(KORVEL_SANITIZE)
    set_tests_properties(${NAME} PROPERTIES ENVIRONMENT "${KORVEL_SANITIZER_OPTIONS}")
  endif()
endfunction()
