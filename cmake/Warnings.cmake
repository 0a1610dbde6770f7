# Warning and sanitizer flags shared by every target of the project.
function(vel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                         -Wnon-virtual-dtor -Wformat=2)
  if(VEL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(VEL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
