# Project-wide compile settings: strict Qt, warnings, hardening and the optional sanitizer build.
# Applied through an interface target so that every library and executable opts in the same way.

add_library(tellwyn_flags INTERFACE)

target_compile_definitions(tellwyn_flags INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_CAST_FROM_BYTEARRAY
    QT_NO_KEYWORDS
    QT_NO_CONTEXTLESS_CONNECT
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_FOREACH
    QT_STRICT_ITERATORS
    TELLWYN_VERSION="${PROJECT_VERSION}"
    TELLWYN_BUILD_NUMBER="${TELLWYN_BUILD_NUMBER}"
)

target_compile_options(tellwyn_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Wunused -Woverloaded-virtual -Wconversion -Wsign-conversion
    -Wdouble-promotion -Wformat=2 -Wimplicit-fallthrough
    $<$<BOOL:${TELLWYN_WERROR}>:-Werror>
    # Hardening
    -fstack-protector-strong -fstack-clash-protection -fcf-protection -fPIC
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>
    $<$<NOT:$<CONFIG:Debug>>:-O2>
)
target_link_options(tellwyn_flags INTERFACE
    -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed -pie
)

if(TELLWYN_SANITIZE)
    target_compile_options(tellwyn_flags INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -U_FORTIFY_SOURCE)
    target_link_options(tellwyn_flags INTERFACE -fsanitize=address,undefined)
endif()
