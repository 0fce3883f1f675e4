# Every target of the gateway is compiled with these; a warning is mended, not silenced.
add_library(gateway_flags INTERFACE)
target_compile_features(gateway_flags INTERFACE cxx_std_20)
# 64-bit offsets and times also on 32-bit hosts: a spool file over 2 GB must open, and a time
# stamp after 2038 must not wrap.
target_compile_definitions(gateway_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(gateway_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wcast-align
    -Wcast-qual -Wold-style-cast -Woverloaded-virtual -Wundef -Wvla
    $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond;-Wlogical-op>
    $<$<BOOL:${RETRYER_WERROR}>:-Werror>)
target_include_directories(gateway_flags INTERFACE ${PROJECT_SOURCE_DIR}/lib ${PROJECT_SOURCE_DIR}/proxies)
