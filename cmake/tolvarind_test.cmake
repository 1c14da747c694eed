# tolvarind_test(<target> SOURCES <file>... [LIBS <lib>...] [MAIN plain|sandbox|root]
#                [LABELS <label>...] [SUITES <suite>...] [TIMEOUT <seconds>])
#
# The one way a test is declared. Builds <target> from SOURCES with a gtest
# main: `plain`, or one that first enters the private sandbox (`sandbox`), or
# the real-root one where a second uid acts (`root`; skipped, exit 77, when
# not root). Without SUITES every gtest test is its own ctest test; with
# SUITES each suite is one ctest test "<first label>.<suite>" (a suite shares
# one daemon run), so that ctest runs the suites side by side.
function(tolvarind_test target)
  cmake_parse_arguments(T "" "MAIN;TIMEOUT" "SOURCES;LIBS;LABELS;SUITES" ${ARGN})
  if(NOT T_MAIN)
    set(T_MAIN plain)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(main_lib GTest::gtest_main)
  if(T_MAIN STREQUAL "sandbox")
    set(main_lib sandbox_main)
  elseif(T_MAIN STREQUAL "root")
    set(main_lib root_sandbox_main)
  endif()
  add_executable(${target} ${T_SOURCES})
  target_link_libraries(${target} PRIVATE ${T_LIBS} ${main_lib})

  # An explicit TZ keeps glibc's mktime (called by glog on every line) from
  # rewriting its cached zone under a lock ThreadSanitizer cannot see. The
  # daemon inherits it, and in TSan builds leave to log in its SIGPIPE
  # handler, which is accepted behaviour.
  if(NOT T_SUITES)
    set(props TIMEOUT ${T_TIMEOUT} SKIP_RETURN_CODE 77 ENVIRONMENT "TZ=:/etc/localtime")
    if(T_LABELS)
      list(APPEND props LABELS ${T_LABELS})  # one label: discovery takes no lists
    endif()
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST PROPERTIES ${props})
    return()
  endif()
  set(env "TZ=set::/etc/localtime")
  if(TOLVARIND_SANITIZE STREQUAL "thread")
    list(APPEND env "TSAN_OPTIONS=path_list_append:report_signal_unsafe=0")
  endif()
  list(GET T_LABELS 0 prefix)
  foreach(suite IN LISTS T_SUITES)
    add_test(NAME ${prefix}.${suite} COMMAND ${target} --gtest_filter=${suite}.*)
    # COST: the long suites start first.
    set_tests_properties(${prefix}.${suite} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT}
      COST ${T_TIMEOUT} SKIP_RETURN_CODE 77 ENVIRONMENT_MODIFICATION "${env}")
  endforeach()
endfunction()
