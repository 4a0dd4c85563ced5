# nfslib_warnings() is applied to every target of the project. Warnings are errors where the project is worked on
# (test.sh sets the option), not for somebody whose compiler is newer and knows more of them.
option(NFSLIB_WERROR "Treat warnings as errors" OFF)

function(nfslib_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wformat=2 $<$<BOOL:${NFSLIB_WERROR}>:-Werror>)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()
