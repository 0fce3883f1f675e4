# Hostile text passes through these programs all day: every optimised build carries the compiler's and
# linker's defences, so that what is shipped is what is tested and measured. The sanitizers bring checks
# of their own, which fortified calls would hide.
include(CheckCXXCompilerFlag)

set(hardened $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=")
  set(hardened 0)
endif()
# A compiler may come with a lower level of _FORTIFY_SOURCE.
# Programs and what is linked into them; a module that is loaded brings its own kind of code.
set(program $<NOT:$<BOOL:$<TARGET_PROPERTY:GATEWAY_MODULE>>>)
set(defences $<${program}:-fPIE> -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS)
foreach(flag -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "has${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    list(APPEND defences ${flag})
  endif()
endforeach()
target_compile_options(gateway_flags INTERFACE "$<${hardened}:${defences}>")
target_link_options(gateway_flags INTERFACE
    "$<${hardened}:$<${program}:-pie>;LINKER:-z,relro;LINKER:-z,now;LINKER:-z,noexecstack>")
