# VEL_TSAN: every target of the tree built with ThreadSanitizer (the library,
# the tool, the agent and the tests), for build-tsan/. Run the suite with
#   TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --test-dir build-tsan
# GCC's ThreadSanitizer links its run time into the shared library too, so
# libvel.so keeps linking with --no-undefined. The dependencies (ACE, hiredis,
# jsoncpp, GoogleTest) are not instrumented: TSan still sees their locks, which
# are pthread mutexes, but not their own memory accesses.
if(VEL_TSAN)
  if(VEL_SANITIZE)
    message(FATAL_ERROR "VEL_TSAN and VEL_SANITIZE exclude each other: use two build trees")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()
