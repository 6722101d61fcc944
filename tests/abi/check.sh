#!/bin/sh
# check.sh WHAT BUILD_DIR SOURCE_DIR: check the ABI, dependencies, headers and documented programs.
# shellcheck disable=SC2046,SC2086 # options are several words
set -eu
build=$2
source=$3

# same EXPECTED ACTUAL: compare two files; the expected one must not be empty.
same() {
    [ -s "$1" ] || { echo "nothing to compare with"; exit 1; }
    diff -u "$1" "$2"
}

# listed MAP: the names in the global part of an export map.
listed() {
    sed -n '/global:/,/local:/s/^ *\([a-z_0-9]*\);.*/\1/p' "$1" | sort
}

exported() {
    nm -D --defined-only "$1" | awk '{ print $3 }' | sort
}

# describe LIBRARY: its ABI, the same on every machine, without the members of records of GLib and libc.
describe() {
    abidw --exported-interfaces-only --drop-undefined-syms --no-architecture --no-corpus-path --no-comp-dir-path \
        --no-elf-needed --no-parameter-names --type-id-style hash "$build/$1.so" > "$work/abidw"
    awk '/<class-decl .*\/usr\/include\/.*[^\/]>$/ {
             sub(/>$/, " is-declaration-only=\047yes\047/>"); sub(/ size-in-bits=[^ ]*/, ""); print; foreign = 1 }
         !foreign
         /<\/class-decl>/ { foreign = 0 }' "$work/abidw" |
        sed -E "s/ (filepath|line|column)='[^']*'//g; s, path='$source/, path=',"
}

# kept LIBRARY: the path of its committed ABI, one file for each word size.
kept() {
    echo "$source/tests/abi/$1.$(readelf -h "$build/$1.so" | sed -n 's/.*Class: *ELF//p').abi"
}

# verdict KEPT NOW: same, added or incompatible; $work/report says why. abidiff returns the same status for an addition
# and for a changed parameter, so it runs again without additions. If abidiff itself fails, the verdict is incompatible.
verdict() {
    if abidiff "$1" "$2" > "$work/report"; then
        echo same
    elif abidiff --no-added-syms "$1" "$2" > "$work/incompatible"; then
        echo added
    else
        cp "$work/incompatible" "$work/report"
        echo incompatible
    fi
}

# program DOCUMENT NAME PLATFORM: build the C program that a document contains.
program() {
    awk '/^```/ { inside = $0 == "```c"; next } inside' "$source/$1" > "$work/$2.c"
    $CC -std=gnu11 -Wall -Wextra -Werror -I"$source" "$work/$2.c" -o "$work/$2" -L"$build" -ldnscache "$3" \
        $(pkg-config --cflags --libs glib-2.0) -Wl,-rpath,"$build"
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

case $1 in
exports)
    listed "$source/dnscache/exports.map" > "$work/map"
    exported "$build/libdnscache.so" > "$work/library"
    same "$work/map" "$work/library"
    [ "$(wc -l < "$work/map")" -eq 23 ]
    listed "$source/platform/linux/exports.map" > "$work/map"
    exported "$build/libdnscache-linux.so" > "$work/library"
    same "$work/map" "$work/library"
    # A host that defines one of these names must not replace the library's own: except for the three exported
    # objects, no exported name may appear in a relocation.
    for library in libdnscache libdnscache-linux; do
        exported "$build/$library.so" > "$work/library"
        readelf --wide --relocs "$build/$library.so" | awk 'NF > 4 { sub(/@.*/, "", $5); print $5 }' | sort -u |
            comm -12 - "$work/library"
    done > "$work/elsewhere"
    printf '%s\n' file_name log_file evtrack_dbg_modname > "$work/objects"
    ! grep -vxFf "$work/objects" "$work/elsewhere"
    ;;
services)
    # The library needs every name of platform/*.h, and otherwise only libc and GLib.
    sed -n 's/^[a-z].*[ *]\([a-z_0-9]\{1,\}\)(.*/\1/p; s/^extern .* \([a-z_]*\);/\1/p' "$source"/platform/*.h |
        sort > "$work/declared"
    nm -D --undefined-only "$build/libdnscache.so" | awk '$1 == "U" && $2 !~ /@|^g_/ { print $2 }' |
        sort > "$work/undefined"
    same "$work/declared" "$work/undefined"
    [ "$(wc -l < "$work/declared")" -eq 14 ] # as README.md says
    ;;
runtime)
    for library in libdnscache.so libdnscache-linux.so; do
        readelf -d "$build/$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort
    done > "$work/needed"
    printf '%s\n' libc.so.6 libglib-2.0.so.0 libc.so.6 > "$work/allowed"
    same "$work/allowed" "$work/needed"
    ;;
initialisers)
    readelf -SW "$build/libdnscache.a" > "$work/sections"
    grep -q '\.text' "$work/sections"
    if grep -E '\.(init_array|ctors)' "$work/sections"; then
        echo "the library has static initializers"
        exit 1
    fi
    ;;
headers)
    flags="-I$source $(pkg-config --cflags glib-2.0) -Wall -Wextra -Wpedantic -Werror -fsyntax-only"
    for header in "$source"/dnscache/dnscache.h "$source"/platform/*.h "$source"/platform/*/*_platform.h; do
        for compiler in "$CC -std=c11 -xc" "$CXX -std=c++20 -xc++"; do
            echo "#include \"$header\"" | $compiler $flags -
        done
    done
    ;;
floors)
    # A file includes its own floor and those below; library and platform do not include each other's private headers. Only
    # the owners of state, set-up and the readers of a timeout include state.h.
    floor() {
        case $1 in
        platform/*/*) echo 90 ;;
        platform/*) echo 0 ;;
        dnscache/state.* | dnscache/records/*) echo 4 ;;
        dnscache/diagnostics/*) echo 2 ;;
        dnscache/lists/*) echo 3 ;;
        dnscache/jobs/*) echo 5 ;;
        dnscache/cache/*) echo 6 ;;
        dnscache/frontend/*) echo 7 ;;
        dnscache/*) echo 1 ;;
        esac
    }
    cd "$source"
    grep -rn '^#include "' dnscache platform > "$work/includes"
    while IFS=: read -r file line include; do
        target=$(echo "$include" | sed 's/.*"\(.*\)".*/\1/')
        case $file:$target in
        platform/*:dnscache/*) echo "$file:$line: the platform includes the library" ;;
        dnscache/cache/*:*/state.h | */job_*.cpp:*/state.h | */setup.cpp:*/state.h | */lookup.cpp:*/state.h) ;;
        dnscache/state.cpp:*/state.h) ;;
        *:*/state.h) echo "$file:$line: must not include state.h" ;;
        *) [ "$(floor "$target")" -le "$(floor "$file")" ] || echo "$file:$line: includes a higher floor: $target" ;;
        esac
    done < "$work/includes" > "$work/wrong"
    cat "$work/wrong"
    [ ! -s "$work/wrong" ] && [ "$(wc -l < "$work/includes")" -gt 20 ]
    ;;
gate)
    for library in libdnscache libdnscache-linux; do
        describe $library > "$work/now"
        grep -q '<function-decl' "$work/now" || { echo "$library.so has no debug information"; exit 1; }
        verdict=$(verdict "$(kept $library)" "$work/now")
        [ "$verdict" = same ] || { cat "$work/report"; echo "$library: $verdict" >> "$work/verdicts"; }
    done
    [ ! -e "$work/verdicts" ] || {
        cat "$work/verdicts"
        echo 'added: run scripts/abi-accept. incompatible: existing programs break; undo it, or raise SOVERSION first'
        exit 1
    }
    ;;
accept)
    for library in libdnscache libdnscache-linux; do
        describe $library > "$(kept $library)"
    done
    ;;
verdicts)
    # The gate's verdict and abidiff's report for a library with one difference.
    kept=$(kept libdnscache)
    while IFS='|' read -r expected reason edit; do
        sed "$edit" "$kept" > "$work/now"
        if cmp -s "$kept" "$work/now" || [ "$(verdict "$kept" "$work/now")" != "$expected" ] ||
            { [ -n "$reason" ] && ! grep -q "$reason" "$work/report"; }; then
            cat "$work/report"
            echo "expected $expected: $edit"
            exit 1
        fi
    done << 'END'
same||s/bounded_list.cpp/lists.cpp/
added|1 Added function|/<elf-symbol name='free_node'/{p;s/free_node/new_node/;}
incompatible|1 Removed|/<elf-symbol name='free_node'/d; /<function-decl name='free_node'/,/<.function-decl>/d
incompatible|parameter 1 .* changed|/<function-decl name='dns_cache_set_timeout'/,/<return/s/<parameter type-id='[^']*/<parameter type-id='eaa32e2f/
incompatible|return type changed|/<function-decl name='get_list_length'/,/<.func/s/<return type-id='[^']*/<return type-id='eaa32e2f/
incompatible|offset changed|/<class-decl name='server_addr_info'/,/<.class-decl>/s/bits='4480'/bits='4448'/
incompatible|changed from 255 to 256|s/name='file_name' size='255'/name='file_name' size='256'/
END
    ;;
golden)
    # Every build writes, byte for byte, the records that a 32-bit build wrote, and reads those.
    mkdir "$work/written"
    "$build/tests/golden" write "$work/written"
    for record in request options result; do
        cmp "$source/tests/abi/golden/$record.bin" "$work/written/$record.bin"
    done
    "$build/tests/golden" read "$source/tests/abi/golden" > "$work/read"
    same "$source/tests/abi/golden/read.txt" "$work/read"
    ;;
readme)
    # The programs in the documents build unchanged and print the expected answers.
    program README.md host "$build/libdnscache-linux.so"
    "$work/host" localhost > "$work/answers"
    grep -q '^127\.0\.0\.1$' "$work/answers" # between lines of the library's trace
    memory=$build/CMakeFiles/dnscache_platform_memory_objects.dir/platform/memory/memory_platform.cpp.o
    program docs/porting.md tested "$memory"
    [ "$("$work/tested" 2>&1 > /dev/null)" = '-3, then 0' ]
    ;;
esac
