# Sanitizers are chosen for the whole tree: mixing instrumented and plain objects hides findings.
if(NFSLIB_SANITIZE)
  add_compile_options(-fsanitize=${NFSLIB_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NFSLIB_SANITIZE})
  if(NFSLIB_SANITIZE MATCHES "undefined")
    # The check of dynamic types probes memory through a pipe: it cries wolf in tests that leave no descriptor free.
    add_compile_options(-fno-sanitize=vptr)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The added checks hide from GCC that the standard library's own <regex> initializes what it uses.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  if(NFSLIB_SANITIZE MATCHES "thread")
    # GCC warns that fences are not modelled; the code uses none.
    add_compile_options(-Wno-tsan)
  endif()
endif()
