#!/bin/sh
# check.sh WHAT BUILD_DIR SOURCE_DIR: use the tree that `cmake --install` installs, after it was moved. CC and CXX are
# the compilers with their flags; LDFLAGS is for linking; MEMORY_PLATFORM is the object file of the memory platform.
# shellcheck disable=SC2046,SC2086 # options are several words
set -eu
build=$2
source=$3
tests=$source/tests/install
work=$build/install-tests
# A build for a sysroot installs into the sysroot, because pkg-config puts the sysroot before all paths.
place=${PKG_CONFIG_SYSROOT_DIR:-$work}/moved
export PKG_CONFIG_PATH="$place/lib/pkgconfig"
platform_only='libc.so.6 libdnscache-linux.so.0 libglib-2.0.so.0'
other_libraries=${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

# answers ADDRESS PROGRAM [FOLDER]: the program prints ADDRESS for 127.0.0.1, between lines of the library's trace.
answers() {
    LD_LIBRARY_PATH="${3:-$place/lib}$other_libraries" "$2" 127.0.0.1 > "$work/answers"
    grep -qx "$1" "$work/answers"
}

compile() { # MODULES OPTIONS...
    flags=$(pkg-config --cflags --libs $1)
    shift
    $CC -std=gnu11 -Wall -Wextra -Werror "$@" $flags $LDFLAGS
}

# needs PROGRAM LIBRARIES: the program needs exactly these libraries.
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
    # Only the debug information contains the folder of the build.
    find "$place" -type f > "$work/files"
    [ "$(wc -l < "$work/files")" -ge 15 ]
    while read -r file; do
        objcopy --strip-debug "$file" "$work/stripped" 2> /dev/null || cp "$file" "$work/stripped"
        ! grep -a -q -e "$build" -e "$source" "$work/stripped" || { echo "$file has a path of the build"; exit 1; }
    done < "$work/files"
    ;;
runtime)
    # A switch gets only the two libraries.
    rm -rf "$work/runtime"
    cmake --install "$build" --prefix "$work/runtime" --component runtime > "$work/log"
    (cd "$work/runtime/lib" && echo *) > "$work/files"
    grep -qx 'libdnscache-linux.so.0 libdnscache-linux.so.[0-9.]* libdnscache.so.0 libdnscache.so.[0-9.]*' "$work/files"
    ;;
headers)
    # Every public header of the source tree is installed, under the name that it has there, and compiles as C and C++.
    cd "$source"
    for header in dnscache/dnscache.h platform/*.h platform/linux/linux_platform.h; do
        for compiler in "$CC -std=c11 -xc" "$CXX -std=c++20 -xc++"; do
            echo "#include <$header>" | $compiler -fsyntax-only $(pkg-config --cflags dnscache) -
        done
    done
    [ "$(pkg-config --print-requires dnscache)" = glib-2.0 ]
    version=$(cd "$place/lib" && echo libdnscache.so.?.* | cut -d. -f3-)
    [ "$(pkg-config --modversion dnscache dnscache-linux | uniq)" = "$version" ]
    ;;
pkg_config)
    compile 'dnscache dnscache-linux' "$tests/host.c" -o "$work/host"
    answers 127.0.0.1 "$work/host"
    ;;
other_platform)
    # The same program and library run with another platform layer. LD_BIND_NOW binds all functions at start, as in
    # hardened libraries such as those of the Debian packages.
    mkdir -p "$work/other"
    cp -P "$place"/lib/libdnscache.so.* "$work/other"
    compile dnscache -I"$source" -shared -fPIC "$tests/other_platform.c" "$MEMORY_PLATFORM" \
        -o "$work/other/libdnscache-linux.so.0"
    LD_BIND_NOW=1 answers 192.0.2.1 "$work/host" "$work/other"
    ;;
static)
    compile 'dnscache-linux glib-2.0' "$tests/host.c" -l:libdnscache.a -o "$work/static_host"
    needs "$work/static_host" "$platform_only"
    answers 127.0.0.1 "$work/static_host"
    ;;
cmake)
    # --no-as-needed keeps a library that is linked but not used, so that `needs` finds it.
    cmake -G Ninja -S "$tests/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$place" \
        -DCMAKE_EXE_LINKER_FLAGS=-Wl,--no-as-needed > "$work/log"
    cmake --build "$work/consumer" > "$work/log" || { cat "$work/log"; exit 1; }
    answers 127.0.0.1 "$work/consumer/host"
    needs "$work/consumer/static_host" "$platform_only"
    answers 127.0.0.1 "$work/consumer/static_host"
    ;;
subdirectory)
    # The project that adds this one keeps its own build type, flags and tests.
    project=$work/subdirectory
    cmake -G Ninja -S "$tests/consumer" -B "$project" -DDNSCACHE_SOURCE="$source" > "$work/log"
    cmake --build "$project" --target host > "$work/log" || { cat "$work/log"; exit 1; }
    answers 127.0.0.1 "$project/host" "$project/dnscache"
    grep -qx 'CMAKE_BUILD_TYPE:STRING=' "$project/CMakeCache.txt"
    ninja -C "$project" -t commands host > "$work/commands"
    grep -q 'dnscache/cache/.*-fno-exceptions\|-fno-exceptions.*dnscache/cache/' "$work/commands"
    [ "$(grep -c -e -Wall -e -Wextra "$work/commands")" = 0 ]
    ctest --test-dir "$project" --show-only | grep -qx 'Total Tests: 0'
    ;;
program)
    # The program finds its libraries without LD_LIBRARY_PATH.
    "$place/bin/dnscache-lookup" 127.0.0.1 > "$work/answers"
    grep -q '^127\.0\.0\.1 ' "$work/answers"
    [ -e "$place/share/bash-completion/completions/dnscache-lookup" ] # the shell loads it by this name
    ;;
esac
