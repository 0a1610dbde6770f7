# Warning and sanitizer flags shared by every target of the project.
function(vel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                         -Wnon-virtual-dtor -Wformat=2)
  if(VEL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(VEL_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's flow analysis gives false "maybe uninitialized" reports inside
    # the standard library when the sanitizers instrument it.
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
endfunction()

if(VEL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
