# 32-bit ARM. The libraries stand where KT_ARMHF_SYSROOT says or in build/sysroot-armhf, made by
# packaging/sysroot.sh; without these they are the machine's own, of that foreign architecture.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi") # notes on GCC 7 would bury the warnings

set(kt_sysroot "$ENV{KT_ARMHF_SYSROOT}")
if(NOT kt_sysroot)
    get_filename_component(kt_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf ABSOLUTE)
endif()
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
if(EXISTS ${kt_sysroot}/complete)
    set(libraries ${kt_sysroot}/usr/lib/arm-linux-gnueabihf)
    set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/pkgconfig)
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${kt_sysroot})
    set(CMAKE_FIND_ROOT_PATH ${kt_sysroot})
    set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
    set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
    set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
    # The C library's own files are the cross compiler's.
    string(APPEND CMAKE_CXX_FLAGS_INIT " -idirafter ${kt_sysroot}/usr/include")
    set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${libraries}")
    set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${libraries}")
    # Tests are asked for their names when they are built.
    if(EXISTS /usr/bin/qemu-arm-static)
        set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm-static -L ${kt_sysroot})
    endif()
endif()
