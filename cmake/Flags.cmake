# Every target of this project links qxp_flags; code from elsewhere is not held to it.
add_library(qxp_flags INTERFACE)
target_compile_options(
  qxp_flags
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Wcast-qual
            -Wformat=2
            -Wundef
            -Werror
            # clang holds a format that a caller hands on against the function that takes it; gcc checks the callers.
            $<$<CXX_COMPILER_ID:Clang>:-Wno-format-nonliteral>)
if(QXPMAINT_SANITIZER)
  target_compile_options(qxp_flags INTERFACE -fsanitize=${QXPMAINT_SANITIZER} -fno-omit-frame-pointer)
  target_link_options(qxp_flags INTERFACE -fsanitize=${QXPMAINT_SANITIZER})
  if(QXPMAINT_SANITIZER MATCHES address)
    # AddressSanitizer sees these itself, and they take long to compile.
    target_compile_options(qxp_flags INTERFACE -fno-sanitize=null,object-size)
  endif()
endif()
# Everything that a target reaches tells the fuzzer where it has been.
if(QXPMAINT_BUILD_FUZZERS)
  target_compile_options(qxp_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
# For code whose speed does not matter, tests and the tool: with a sanitizer and optimisation, some sources take most of
# a minute to compile.
set(QXP_QUICK_TO_COMPILE)
if(QXPMAINT_SANITIZER)
  set(QXP_QUICK_TO_COMPILE -O0)
endif()
if(QXPMAINT_TEST_HOOKS)
  target_compile_definitions(qxp_flags INTERFACE QXPMAINT_TEST_HOOKS)
endif()
