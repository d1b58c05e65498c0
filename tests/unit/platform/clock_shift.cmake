# Shifted clocks for whole programs. Preloaded, so built as libkt-softcan is.
add_library(clock-shift SHARED ${CMAKE_CURRENT_LIST_DIR}/../../support/clock_shift.cpp)
set_target_properties(clock-shift PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib
    CXX_VISIBILITY_PRESET hidden)
target_compile_options(clock-shift PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${KT_WERROR}>:-Werror> -fno-exceptions -fno-rtti -fno-threadsafe-statics
    -U_FORTIFY_SOURCE)
target_link_options(clock-shift PRIVATE -static-libgcc -Wl,--as-needed -Wl,-z,defs -Wl,-z,now)
target_link_libraries(clock-shift PRIVATE ${CMAKE_DL_LIBS})
