# Warnings are errors everywhere; nfslib_warnings() is applied to every target of the project.
function(nfslib_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wformat=2 -Werror)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()
