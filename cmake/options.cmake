set(KT_PLATFORM "host" CACHE STRING "which gateway libraries to link: host or gateway")
set_property(CACHE KT_PLATFORM PROPERTY STRINGS host gateway)
set(KT_SANITIZE "" CACHE STRING "value for -fsanitize=, empty for none")
option(KT_WERROR "treat warnings as errors" OFF)
option(KT_FUZZ "build the libFuzzer targets (clang only)" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

add_library(kt_options INTERFACE)
target_compile_options(kt_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${KT_WERROR}>:-Werror>)
# The preloaded CAN library and the sanitizer runtime both replace socket calls. A static runtime
# keeps the sanitizer in front, where it has to be.
if(KT_SANITIZE)
    target_compile_options(kt_options INTERFACE -fsanitize=${KT_SANITIZE} -fno-omit-frame-pointer
                                                -fno-sanitize-recover=all)
    target_link_options(kt_options INTERFACE -fsanitize=${KT_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        if(KT_SANITIZE MATCHES "address")
            target_link_options(kt_options INTERFACE -static-libasan)
        endif()
        if(KT_SANITIZE MATCHES "thread")
            target_link_options(kt_options INTERFACE -static-libtsan)
        endif()
    endif()
endif()

# kt_library(NAME [INCLUDE dir] SOURCES ... [LINK public-libs...])
function(kt_library name)
    cmake_parse_arguments(arg "" "INCLUDE" "SOURCES;LINK" ${ARGN})
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC ${arg_INCLUDE})
    target_link_libraries(${name} PUBLIC ${arg_LINK} PRIVATE kt_options)
endfunction()
