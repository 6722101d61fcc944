#!/bin/sh
# check.sh CASE BUILD_DIR SOURCE_DIR: check what users get. CASE is the name of the test; abi.accept rewrites
# tests/abi/*.abi instead. CC and CXX are the compilers with their flags; MEMORY_PLATFORM is the object file of the
# memory platform, RESOLVER the library that is preloaded into the example hosts.
# shellcheck disable=SC2046,SC2086 # options are several words
set -eu
case=$1 build=$2 source=$3 host=
pages=$source/docs/man
work=$(mktemp -d)
trap 'kill "$host" 2> /dev/null || true; rm -rf "$work"' EXIT
export LC_ALL=C
unset DESTDIR
[ -n "${PKG_CONFIG_LIBDIR:-}" ] || unset PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR

fail() {
    echo "$*"
    exit 1
}

# same EXPECTED ACTUAL: compare two files; the expected one must not be empty.
same() {
    [ -s "$1" ] || fail 'nothing to compare with'
    diff -u "$1" "$2"
}

# declared: list the functions and objects that the C code on standard input declares.
declared() {
    sed -n 's/^[a-zG].*[ *]\([a-z_0-9]\{1,\}\)(.*/\1/p; s/^extern .*[ *]\([a-z_]*\)[;[].*/\1/p' | sort
}

# needs FILE LIBRARIES: the file needs exactly these libraries.
needs() {
    needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort | paste -sd ' ')
    [ "$needed" = "$2" ] || fail "$1 needs $needed, not only $2"
}

# extract DOCUMENT: write the C program that it contains to $work/host.c.
extract() {
    awk '/^```/ { inside = $0 == "```c"; next } inside' "$source/$1" > "$work/host.c"
}

compile() { # ARGUMENTS...
    $CC -std=gnu11 -Wall -Wextra -Werror "$@"
}

# answers PROGRAM [FOLDER]: it prints 127.0.0.1 for this name, among other text; its libraries are in FOLDER.
answers() {
    LD_LIBRARY_PATH=${2:+$2:}${LD_LIBRARY_PATH:-} "$1" 127.0.0.1 > "$work/answers" || fail "$1: exit status $?"
    grep -q '^127\.0\.0\.1' "$work/answers" || fail "$1: no answer: $(cat "$work/answers")"
}

# project OPTIONS...: configure and build the programs of another project, and run the one with the shared library.
project() {
    extract README.md
    { cmake -G Ninja -S "$source/tests/shipped/consumer" -B "$work/project" -DHOST="$work/host.c" "$@" &&
        cmake --build "$work/project" --target host static_host; } > "$work/log" 2>&1 || fail "$(cat "$work/log")"
    answers "$work/project/host"
}

# section PAGE HEADING: print a section as rendered.
section() {
    MANWIDTH=80 man -E ascii -l "$1" | awk -v heading="$2" '/^[A-Z]/ { inside = $0 == heading; next } inside'
}

# run_host NAME LINES...: start an example host, wait until it has printed LINES in this order, perhaps with
# others, then terminate it. No call may have blocked. Answers expire after a second, so that its timer is fast.
run_host() {
    name=$1
    shift
    mkfifo "$work/$name"
    ASAN_OPTIONS="verify_asan_link_order=0:${ASAN_OPTIONS:-}" SCRIPT_DIR=$work LD_PRELOAD=$RESOLVER \
        timeout --foreground -k 1 30 "$build/examples/${case#*.}" "$name" 123 0 1 > "$work/log.$name" 2> "$work/$name" &
    host=$!
    exec 3< "$work/$name"
    for expected; do
        ! sed -u "/^$name: .*$expected/q 1" <&3 || fail "$name: ended without printing: $expected"
    done
    kill -s TERM "$host"
    stopped=$host host=
    wait "$stopped" || fail "$name: exit status $?"
    grep -q 'Async Name Resolution Job Forked' "$work/log.$name" || fail "$name: the trace shows no job"
    ! grep 'blocking spawnlet' "$work/log.$name" || fail "$name: the host blocked"
}

case $case in
abi.exports)
    # The headers declare what the libraries export. (The build of the packages compares it with debian/*.symbols.)
    cat "$source"/dnscache/dnscache.h "$source"/platform/*.h "$source"/platform/linux/linux_platform.h |
        declared > "$work/declared"
    # A host that defines one of these names must not replace the library's own: except for the three exported
    # objects, no exported name may appear in a relocation.
    for library in libdnscache libdnscache-linux; do
        nm -D --defined-only "$build/$library.so" | awk '{ print $3 }' | sort > "$work/$library"
        ! readelf --wide --relocs "$build/$library.so" | awk 'NF > 4 { sub(/@.*/, "", $5); print $5 }' | sort -u |
            comm -12 - "$work/$library" | grep -vxE 'file_name|log_file|evtrack_dbg_modname' ||
            fail "$library calls these through its host"
    done
    sort "$work"/libdnscache* > "$work/exported"
    same "$work/declared" "$work/exported"
    ;;
abi.needs)
    # The library needs every name of platform/*.h, and otherwise only libc and GLib: no C++ runtime, no initializers.
    needs "$build/libdnscache.so" 'libc.so.6 libglib-2.0.so.0'
    needs "$build/libdnscache-linux.so" libc.so.6
    ! readelf -SW "$build/libdnscache.a" | grep -E '\.(init_array|ctors)' || fail 'the library has static initializers'
    cat "$source"/platform/*.h | declared > "$work/declared"
    nm -D --undefined-only "$build/libdnscache.so" | awk '$1 == "U" && $2 !~ /@|^g_/ { print $2 }' | sort > "$work/used"
    same "$work/declared" "$work/used"
    ;;
abi.floors)
    # A file includes its own floor and those below; library and platform do not include each other's private headers.
    # Only the owners of state, set-up and the readers of a timeout include state.h.
    cd "$source"
    grep -rn '^#include "' dnscache platform | awk -F '[:"]' '
        function floor(path) {
            sub("^dnscache/state[.].*", "dnscache/records/", path)
            sub("/[^/]*$", " ", path)
            return index(" platform dnscache dnscache/diagnostics dnscache/lists dnscache/records dnscache/jobs" \
                         " dnscache/cache dnscache/frontend ", " " path)
        }
        $1 ~ "^platform/" ? $4 ~ "^dnscache/" : !floor($1) || !floor($4) || floor($4) > floor($1) ||
            $4 == "dnscache/state.h" && $1 !~ "^dnscache/(cache/|jobs/job_|frontend/(setup|lookup)|state)" {
            print $1 ":" $2 ": must not include " $4
            wrong = 1
        }
        END { exit wrong || NR < 20 }'
    ;;
abi.gate | abi.accept)
    # The ABI is the same on every machine, without the members of records of GLib and libc. Each word size has its own.
    for library in libdnscache libdnscache-linux; do
        kept=$source/tests/abi/$library.$(readelf -h "$build/$library.so" | sed -n 's/.*Class: *ELF//p').abi
        abidw --exported-interfaces-only --drop-undefined-syms --no-architecture --no-corpus-path --no-comp-dir-path \
            --no-elf-needed --no-parameter-names --type-id-style hash "$build/$library.so" > "$work/abidw"
        awk '/<class-decl .*\/usr\/include\/.*[^\/]>$/ {
                 sub(/>$/, " is-declaration-only=\047yes\047/>"); sub(/ size-in-bits=[^ ]*/, ""); print; foreign = 1 }
             !foreign
             /<\/class-decl>/ { foreign = 0 }' "$work/abidw" |
            sed -E "s/ (filepath|line|column)='[^']*'//g; s, path='$source/, path='," > "$work/now"
        if [ "$case" = abi.accept ]; then
            cp "$work/now" "$kept"
        elif ! abidiff "$kept" "$work/now"; then
            # abidiff returns the same status for an addition and for a changed parameter.
            ! abidiff --no-added-syms "$kept" "$work/now" > "$work/report" ||
                fail "$library: added: run scripts/abi-accept"
            fail "$library: incompatible: existing programs break; undo it, or raise SOVERSION first"
        fi
    done
    ;;
abi.golden)
    # Every build writes, byte for byte, the records that a 32-bit build wrote.
    "$build/tests/shipped/golden" > "$work/trace" 2> "$work/records"
    (cd "$source/tests/abi/golden" && cat options.bin request.bin result.bin) | cmp - "$work/records"
    ;;
install.tree)
    # A switch gets only the two libraries.
    cmake --install "$build" --prefix "$work/runtime" --component runtime > "$work/log"
    files=$(cd "$work/runtime" && find . ! -type d | sed 's/[.][0-9.]*$//' | sort | paste -sd ' ')
    [ "$files" = './lib/libdnscache-linux.so ./lib/libdnscache-linux.so ./lib/libdnscache.so ./lib/libdnscache.so' ] ||
        fail "a switch gets $files"
    # The tree works wherever it is moved to, the program without LD_LIBRARY_PATH for its libraries. A build for a
    # sysroot installs into the sysroot, because pkg-config puts the sysroot before all paths.
    place=${PKG_CONFIG_SYSROOT_DIR:-$build}/moved
    rm -rf "$place"
    cmake --install "$build" --prefix "$work/first" > "$work/log"
    mv "$work/first" "$place"
    [ ! -e "$build/host/dnscache-lookup" ] || {
        answers "$place/bin/dnscache-lookup"
        ls "$place/share/bash-completion/completions/dnscache-lookup" # the shell loads it by this name
    }
    # Only the debug information contains the folder of the build.
    find "$place" -type f -exec objcopy --strip-debug {} \; 2> /dev/null
    ! grep -r -e "$build" -e "$source" "$place" || fail 'these files have a path of the build'
    # Every public header of the source tree is installed, under the name that it has there, and compiles as C.
    cd "$source"
    export PKG_CONFIG_PATH="$place/lib/pkgconfig"
    for header in dnscache/dnscache.h platform/*.h platform/linux/linux_platform.h; do
        echo "#include <$header>" | compile -std=c11 -xc -Wpedantic -fsyntax-only $(pkg-config --cflags dnscache) -
    done
    extract README.md
    compile "$work/host.c" -o "$work/host" $(pkg-config --cflags --libs dnscache dnscache-linux)
    answers "$work/host" "$place/lib"
    [ -e "$place/lib/libdnscache.so.$(pkg-config --modversion dnscache dnscache-linux | uniq)" ] || fail 'wrong version'
    # --no-as-needed keeps a library that is linked but not used, so that `needs` finds it.
    project -DCMAKE_PREFIX_PATH="$place" -DCMAKE_EXE_LINKER_FLAGS=-Wl,--no-as-needed
    needs "$work/project/static_host" 'libc.so.6 libdnscache-linux.so.0 libglib-2.0.so.0'
    answers "$work/project/static_host"
    ;;
install.subdirectory)
    # The project that adds this one keeps its own build type, flags and tests.
    project -DDNSCACHE_SOURCE="$source"
    grep -qx 'CMAKE_BUILD_TYPE:STRING=' "$work/project/CMakeCache.txt" || fail 'the build type is set'
    ninja -C "$work/project" -t commands host > "$work/commands"
    ! grep -e -Wall -e -Wextra "$work/commands" || fail 'the project gets our warnings'
    ctest --test-dir "$work/project" --show-only | grep -qx 'Total Tests: 0' || fail 'the project gets our tests'
    ;;
packages.debian)
    packages=$source/build/packages
    root=$work/root
    env -u CC -u CXX "$source/scripts/package" # with the packages' own compilers
    while IFS=: read -r package depends; do
        dpkg-deb -f "$packages/$package"_*.deb Depends | sed 's/ ([^)]*)//g' > "$work/depends"
        grep -qx "$depends" "$work/depends" || fail "$package depends on $(cat "$work/depends"), not on $depends"
        dpkg-deb -X "$packages/$package"_*.deb "$root" | grep -v '/$' >> "$work/files"
    done << 'END'
libdnscache0:libc6, libglib2.0-0
libdnscache-dev:libdnscache0, libglib2.0-dev
dnscache-tools:libc6, libdnscache0, libglib2.0-0, libjson-glib-1.0-0
END
    ! sort "$work/files" | uniq -d | grep . || fail 'these files are in two packages'
    libraries=$(echo "$root"/usr/lib/*-linux-gnu)
    export PKG_CONFIG_PATH="$libraries/pkgconfig"
    answers "$root/usr/bin/dnscache-lookup" "$libraries"
    said=$(LD_LIBRARY_PATH=$libraries "$root/usr/bin/dnscache-lookup" --version)
    [ "$said" = "dnscache-lookup $(dpkg-deb -f "$packages"/dnscache-tools_*.deb Version)" ] || fail "$said"
    compile "$root/usr/share/doc/libdnscache-dev/examples/epoll_host.c" -o "$work/host" \
        $(pkg-config --cflags --libs dnscache dnscache-linux)
    export TMPDIR="$work" # lintian leaves files there
    lintian --fail-on error,warning "$packages"/*.changes
    lintian --fail-on info --tags hardening-no-bindnow,hardening-no-fortify-functions "$packages"/*.deb
    ;;
manual.prototypes)
    headers="$source/dnscache/dnscache.h $source/platform/linux/linux_platform.h"
    for page in "$pages"/*.3; do
        section "$page" SYNOPSIS | sed 's/^       //' > "$work/synopsis.c"
        $CC -std=c11 -D_GNU_SOURCE -Wall -Wextra -Werror -I"$source" $(pkg-config --cflags glib-2.0) \
            $(printf ' -include %s' $headers) -fsyntax-only "$work/synopsis.c"
        section "$page" NAME | tr '\n' ' ' | sed 's/ -.*//' | tr -s ', ' '\n' | sed '/^$/d' | sort > "$work/names"
        declared < "$work/synopsis.c" > "$work/declared"
        same "$work/names" "$work/declared"
        cat "$work/names" >> "$work/documented"
    done
    cat $headers | declared > "$work/declared"
    sort "$work/documented" > "$work/names"
    same "$work/declared" "$work/names"
    # Records appear as declared, except for comments.
    records() { sed -n '/^typedef struct/,/^}/{s,/\*.*\*/,,;p}' "$@" | tr -d ' \n' | sed 's/}[a-z_]*;/&\n/g' | sort; }
    records $headers > "$work/declared"
    ! records "$pages"/*.3 | comm -23 - "$work/declared" | grep . || fail 'not declared like this'
    ;;
manual.options)
    options() { cut -c1-30 | grep -oE -- '(^| )--?[a-zA-Z][a-z-]*' | tr -d ' ' | sort -u; }
    "$build/host/dnscache-lookup" --help | grep '^  -' | options > "$work/program"
    section "$pages/dnscache-lookup.1" OPTIONS | grep '^       -' | options > "$work/page"
    same "$work/program" "$work/page"
    ;;
manual.examples)
    # Programs begin with a comment that names them; sessions are indented by four more columns.
    PATH=$build/host:$PATH
    for page in "$pages"/*.[37] $([ ! -x "$build/host/dnscache-lookup" ] || echo "$pages/dnscache-lookup.1"); do
        name=$(basename "$page")
        mkdir "$work/$name"
        ! MANWIDTH=80 man -E ascii -l "$page" | grep -E '.{81}' || fail "$name: too wide"
        section "$page" EXAMPLES | awk -v folder="$work/$name/" '
            /^   [A-Z]/ { file = "" }
            /^       \/\* [a-z_]*\.c \*\/$/ { file = $2 }
            { sub(/^       /, "") }
            file != "" { print > (folder file) }
            file == "" && sub(/^    /, "") { print > (folder "session") }'
        for program in "$work/$name"/*.c; do
            [ "$name" = dnscache-lookup.1 ] || compile "$program" -o "${program%.c}" -I"$source" -L"$build" -ldnscache \
                -ldnscache-linux $(pkg-config --cflags --libs glib-2.0) -Wl,-rpath,"$build"
        done
        (cd "$work/$name" && grep '^\$ ' session | while IFS= read -r line; do
            printf '%s\n' "$line"
            (set +e; eval "${line#\$ }") < /dev/null 2>&1 | sed 's/ *$//'
        done) > "$work/actual"
        same "$work/$name/session" "$work/actual"
    done
    ;;
manual.porting)
    extract docs/porting.md
    compile "$work/host.c" -o "$work/host" -I"$source" -L"$build" -ldnscache "$MEMORY_PLATFORM" \
        $(pkg-config --cflags --libs glib-2.0) -Wl,-rpath,"$build"
    results=$("$work/host" 2>&1 > /dev/null)
    [ "$results" = '-3, then 0' ] || fail "$results, instead of -3, then 0"
    ;;
examples.*)
    # Both families, twice: again after they have expired
    run_host pair.test '192.0.2.1 2001:db8::1' '192.0.2.1 2001:db8::1'
    # After a failure, and after a job that succeeds without a record, the timer starts the next job.
    run_host nosuch.test 'Name or service not known' 'Name or service not known'
    run_host odd.test 'no usable answer' 'no usable answer'
    # While a job never ends, the timer keeps ticking, and a signal terminates the host.
    run_host stuck.test 'no addresses yet' 'no addresses yet' 'no addresses yet'
    ;;
*)
    fail "unknown test: $case"
    ;;
esac
