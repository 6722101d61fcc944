#!/bin/sh
# check.sh WHAT BUILD_DIR SOURCE_DIR: test what `cmake --install` installs, after moving it elsewhere. The compilers and
# their flags are in CC, CFLAGS, CXX, CXXFLAGS and LDFLAGS.
# shellcheck disable=SC2046,SC2086 # options are several words
set -eu
build=$2
source=$3
tests=$source/tests/install
work=$build/install-tests
# With a sysroot, install below it: pkg-config prepends the sysroot to all paths.
place=${PKG_CONFIG_SYSROOT_DIR:-$work}/moved
export PKG_CONFIG_PATH="$place/lib/pkgconfig"
platform_only='libc.so.6 libdnscache-linux.so.0 libglib-2.0.so.0'
other_libraries=${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

# answers ADDRESS PROGRAM [FOLDER]: the program must print ADDRESS for 127.0.0.1, among lines of the library's trace.
answers() {
    LD_LIBRARY_PATH="${3:-$place/lib}$other_libraries" "$2" 127.0.0.1 > "$work/answers"
    grep -qx "$1" "$work/answers"
}

compile() { # MODULES OPTIONS...
    flags=$(pkg-config --cflags --libs $1)
    shift
    $CC $CFLAGS -std=gnu11 -Wall -Wextra -Werror "$@" $flags $LDFLAGS
}

# needs PROGRAM LIBRARIES: the program must need these libraries and no others.
needs() {
    needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | LC_ALL=C sort | paste -sd ' ')
    [ "$needed" = "$2" ] || { echo "$1 needs $needed"; exit 1; }
}

case $1 in
tree)
    rm -rf "$work" "$place"
    mkdir -p "$work"
    cmake --install "$build" --prefix "$work/first" > "$work/log"
    mv "$work/first" "$place"
    ;;
paths)
    # Only the debug information may contain the paths of the build and of the first installation.
    find "$place" -type f > "$work/files"
    [ "$(wc -l < "$work/files")" -ge 15 ]
    while read -r file; do
        objcopy --strip-debug "$file" "$work/stripped" 2> /dev/null || cp "$file" "$work/stripped"
        ! grep -a -q -e "$build" -e "$source" "$work/stripped" || { echo "$file has a path of the build"; exit 1; }
    done < "$work/files"
    ;;
runtime)
    # The component for switches has only the two libraries.
    rm -rf "$work/runtime"
    cmake --install "$build" --prefix "$work/runtime" --component runtime > "$work/log"
    (cd "$work/runtime/lib" && echo *) > "$work/files"
    grep -qx 'libdnscache-linux.so.0 libdnscache-linux.so.[0-9.]* libdnscache.so.0 libdnscache.so.[0-9.]*' "$work/files"
    ;;
headers)
    # Every public header compiles as C and as C++, included by its name in the source tree.
    cd "$source"
    for header in dnscache/dnscache.h platform/*.h platform/linux/linux_platform.h; do
        for compiler in "$CC $CFLAGS -std=c11 -xc" "$CXX $CXXFLAGS -std=c++20 -xc++"; do
            echo "#include <$header>" | $compiler -fsyntax-only $(pkg-config --cflags dnscache) -
        done
    done
    [ "$(pkg-config --print-requires dnscache)" = glib-2.0 ]
    [ "$(pkg-config --modversion dnscache dnscache-linux | uniq)" = "$(cd "$place/lib" && echo libdnscache.so.?.* | cut -d. -f3-)" ]
    ;;
pkg_config)
    compile 'dnscache dnscache-linux' "$tests/host.c" -o "$work/host"
    answers 127.0.0.1 "$work/host"
    ;;
other_platform)
    # The same program and library run with another platform layer. LD_BIND_NOW resolves all symbols at start, as in
    # hardened libraries such as those of the Debian packages.
    mkdir -p "$work/other"
    cp -P "$place"/lib/libdnscache.so.* "$work/other"
    memory=$build/CMakeFiles/dnscache_platform_memory_objects.dir/platform/memory/memory_platform.cpp.o
    compile dnscache -I"$source" -shared -fPIC "$tests/other_platform.c" "$memory" -o "$work/other/libdnscache-linux.so.0"
    LD_BIND_NOW=1 answers 192.0.2.1 "$work/host" "$work/other"
    ;;
static)
    compile 'dnscache-linux glib-2.0' "$tests/host.c" -l:libdnscache.a -o "$work/static_host"
    needs "$work/static_host" "$platform_only"
    answers 127.0.0.1 "$work/static_host"
    ;;
cmake)
    cmake -G Ninja -S "$tests/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$place" \
        -DCMAKE_EXE_LINKER_FLAGS=-Wl,--no-as-needed > "$work/log" # so that needs() sees unused libraries
    cmake --build "$work/consumer" > "$work/log" || { cat "$work/log"; exit 1; }
    answers 127.0.0.1 "$work/consumer/host"
    needs "$work/consumer/static_host" "$platform_only"
    answers 127.0.0.1 "$work/consumer/static_host"
    ;;
program)
    # It finds its libraries without LD_LIBRARY_PATH.
    "$place/bin/dnscache-lookup" 127.0.0.1 > "$work/answers"
    grep -q '^127\.0\.0\.1 ' "$work/answers"
    [ -e "$place/share/bash-completion/completions/dnscache-lookup" ] # the shell loads the file by this name
    ;;
esac
