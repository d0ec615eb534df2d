# How library, checker and tests are compiled and linked. Everything is set per target, after the flags that the user
# gives in CMAKE_<LANG>_FLAGS, which stay as they are.

include(CheckPIESupported)
check_pie_supported()

# What every object needs: warnings, signed plain char and 64-bit file offsets on all targets, and a __FILE__ relative
# to the source tree.
function(cmsverify_common_options TARGET)
    target_compile_options(${TARGET} PRIVATE
        -Wall -Wextra -Wpedantic -Wconversion -Wshadow
        -fsigned-char
        "-ffile-prefix-map=${cmsverify_SOURCE_DIR}/=")
    target_compile_definitions(${TARGET} PRIVATE _FILE_OFFSET_BITS=64)
    set_target_properties(${TARGET} PROPERTIES
        C_STANDARD 11
        C_STANDARD_REQUIRED ON
        C_EXTENSIONS OFF
        CXX_STANDARD 17
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF
        COMPILE_WARNING_AS_ERROR ON)
endfunction()

# Library and checker: no run-time support of C++ (so that --as-needed drops libstdc++), hidden symbols, hardening.
function(cmsverify_compiler_options TARGET)
    set(OPTIMIZED $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    set(LTO $<BOOL:OFF>)
    # Objects hold ordinary code as well, for whoever links the static library in another way and for checks of objects.
    if(CMSVERIFY_LTO AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        set(LTO ${OPTIMIZED})
    endif()
    cmsverify_common_options(${TARGET})
    target_compile_options(${TARGET} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>
        -fno-strict-aliasing
        $<${OPTIMIZED}:${CMSVERIFY_STACK_PROTECTOR} -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>
        $<${LTO}:-flto=auto -ffat-lto-objects>)
    # The helpers of 32-bit ARM, divisions for instance, are linked in: libgcc_s is one library more to have.
    target_link_options(${TARGET} PRIVATE
        -Wl,--as-needed
        -static-libgcc
        $<${OPTIMIZED}:-Wl,-z,relro,-z,now,-z,noexecstack>
        $<${LTO}:-flto=auto>)
    set_target_properties(${TARGET} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
endfunction()
