set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_INCLUDE_CURRENT_DIR OFF)

add_compile_options(
    -Wall -Wextra -Wpedantic
    $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
    $<$<COMPILE_LANGUAGE:CXX>:-Wshadow>
    -fstack-protector-strong
    # Messages carry source paths; they are relative to the root wherever it was built.
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Unique symbols would tie what plugins have in common to the one that was loaded first, and pin it in the process.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()
# Fortification needs optimisation and does not go together with AddressSanitizer.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
add_link_options(-Wl,-z,relro,-z,now)
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    add_link_options(-Wl,--no-undefined)
endif()

add_compile_definitions(
    QT_NO_CAST_FROM_ASCII
    QT_NO_FOREACH
    QT_DEPRECATED_WARNINGS
    QT_DISABLE_DEPRECATED_BEFORE=0x050f00
    QT_MESSAGELOGCONTEXT
)
