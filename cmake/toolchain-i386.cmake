# 32-bit x86 code on 64-bit Debian. scripts/sysroot-i386 puts the libraries other than libc below build/sysroot-i386.
# The compilers are those of the preset. The processor runs both kinds of code, so this is not cross-compiling.
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-i386)
cmake_path(NORMAL_PATH sysroot)

set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)

# The linker looks here for the libraries that GLib needs in turn.
foreach(kind EXE MODULE SHARED)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT
        "-Wl,-rpath-link,${sysroot}/usr/lib/i386-linux-gnu:${sysroot}/lib/i386-linux-gnu")
endforeach()

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/i386-linux-gnu/pkgconfig)
