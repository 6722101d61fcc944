#!/bin/sh
# check.sh WHAT BUILD_DIR SOURCE_DIR: compare the manual with the headers, the program and the libraries.
# shellcheck disable=SC2046,SC2086 # options are several words
set -eu
build=$2
source=$3
pages=$source/docs/man
headers="$source/dnscache/dnscache.h $source/platform/linux/linux_platform.h"
cc="$CC ${CFLAGS:-} -std=c11 -D_GNU_SOURCE -Wall -Wextra -Werror -I$source $(pkg-config --cflags glib-2.0)"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset DESTDIR

# section PAGE HEADING: print a section as rendered.
section() {
    LC_ALL=C MANWIDTH=80 man -E ascii -l "$1" | awk -v heading="$2" '/^[A-Z]/ { inside = $0 == heading; next } inside'
}

# same EXPECTED ACTUAL: compare two files; the expected one must not be empty.
same() {
    [ -s "$1" ] || { echo "nothing to compare with"; exit 1; }
    diff -u "$1" "$2"
}

# nothing FILE: print a list of errors, which must be empty.
nothing() {
    cat "$1"
    [ ! -s "$1" ]
}

# declared: list the functions and objects that the C code on standard input declares.
declared() {
    sed -n 's/^[a-zG].*[ *]\([a-z_0-9]\{1,\}\)(.*/\1/p; s/^extern .*[ *]\([a-z_]*\)[;[].*/\1/p' | sort
}

# page_names PAGE: list the names in its NAME line.
page_names() {
    section "$1" NAME | tr '\n' ' ' | sed 's/ -.*//' | tr -s ', ' '\n' | sed '/^$/d' | sort
}

# blocks PAGE: write the .EX blocks of its EXAMPLES to files: programs named by their first line, sessions by number.
blocks() {
    rm -rf "$work/blocks"
    mkdir "$work/blocks"
    awk '/^\.SH/ { inside = $2 == "EXAMPLES" } /^\.E[XE]/ { taken = inside && /X/; number++; next }
         taken { print > (folder "/" number) }' folder="$work/blocks" "$1"
    # Unescaped, these characters become other characters in some output formats.
    if sed "s/\\\\f[BP]//g; s/\\\\[-e&]//g; s/\\\\([a-z][a-z]//g" "$work"/blocks/* | grep -n "[-'^~\`\\\\]"; then
        echo "$1: unescaped characters"
        exit 1
    fi
    sed -i "s/\\\\f[BP]//g; s/\\\\[-]/-/g; s/\\\\(aq/'/g; s/\\\\(ha/^/g; s/\\\\(ti/~/g; s/\\\\(ga/\`/g; s/\\\\&//g; s/\\\\e/\\\\/g" \
        "$work"/blocks/*
    for block in "$work"/blocks/*; do
        program=$(sed -n '1s,^/\* \([a-z_]*\.c\) \*/$,\1,p' "$block")
        [ -z "$program" ] || mv "$block" "$work/blocks/$program"
    done
}

# play SESSION: run its commands, and print them with their output.
play() {
    grep '^\$ ' "$1" | while IFS= read -r line; do
        printf '%s\n' "$line"
        (set +e; cd "$work/blocks" && eval "${line#\$ }") < /dev/null 2>&1 | sed 's/ *$//'
    done
}

case $1 in
pages)
    for page in "$pages"/*.[1-9]; do
        LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 > "$work/troff" | sed "s,^,$page: ,"
        grep -q NAME "$work/troff" || echo "$page: not rendered"
        LC_ALL=C MANWIDTH=80 man -E ascii -l "$page" | awk -v page="$page" 'length > 80 { print page ": too wide: " $0 }'
        awk -v page="$page" 'BEGIN { split("NAME,LIBRARY,SYNOPSIS,CONFIGURATION,DESCRIPTION,OPTIONS,EXIT STATUS,RETURN VALUE," \
                "ERRORS,ENVIRONMENT,FILES,ATTRIBUTES,VERSIONS,STANDARDS,HISTORY,NOTES,CAVEATS,BUGS,EXAMPLES,AUTHORS," \
                "REPORTING BUGS,COPYRIGHT,SEE ALSO", order, ","); for (i in order) place[order[i]] = i + 0 }
            sub(/^\.SH /, "") { if (place[$0] <= last) print page ": out of order: " $0; last = place[$0] }' "$page"
    done > "$work/wrong"
    nothing "$work/wrong"
    ;;
names)
    # Each exported name and each function of the Linux platform has a page, and there are no other pages.
    cmake --install "$build/docs/man" --prefix "$work/usr" > /dev/null
    cat $headers | declared > "$work/declared"
    find "$work/usr" -name '*.3' -exec basename {} .3 \; | sort > "$work/found"
    same "$work/declared" "$work/found"
    sed -n '/global:/,/local:/s/^ *\([a-z_0-9]*\);.*/\1/p' "$source/dnscache/exports.map" | sort > "$work/exported"
    comm -23 "$work/exported" "$work/found" | sed 's/$/: no page/' > "$work/missing"
    nothing "$work/missing"
    man -M "$(dirname "$(find "$work/usr" -name man3)")" 3 linux_history_read | grep -q 'linux_queue_create'
    ;;
prototypes)
    for page in "$pages"/*.3; do
        section "$page" SYNOPSIS | sed 's/^       //' > "$work/synopsis.c"
        $cc -I"$source/dnscache" $(printf ' -include %s' $headers) -fsyntax-only "$work/synopsis.c"
        page_names "$page" > "$work/names"
        declared < "$work/synopsis.c" > "$work/declared"
        same "$work/names" "$work/declared"
        # Records appear as declared, except for comments.
        normal() { sed 's,/\*.*\*/,,' "$@" | tr -d ' \n'; }
        declarations=$(normal $headers)
        sed -n '/^typedef struct/,/^}/p' "$page" | sed 's/^}.*/&\n/' > "$work/records"
        while record=$(sed '/^$/q' | normal) && [ -n "$record" ]; do
            case $declarations in
            *"$record"*) ;;
            *) echo "$page: not declared like this: $record"; exit 1 ;;
            esac
        done < "$work/records"
    done
    ;;
options)
    options() { grep -oE -- '(^| )--?[a-zA-Z][a-z-]*' | tr -d ' ' | sort -u; }
    "$build/host/dnscache-lookup" --help | grep '^  -' | cut -c1-27 | options > "$work/program"
    section "$pages/dnscache-lookup.1" OPTIONS | grep '^       -' | cut -c1-30 | options > "$work/page"
    same "$work/program" "$work/page"
    ;;
examples)
    PATH=$build/host:$PATH
    for page in "$pages"/*.[37] $([ ! -x "$build/host/dnscache-lookup" ] || echo "$pages/dnscache-lookup.1"); do
        blocks "$page"
        for program in "$work"/blocks/*.c; do
            [ ! -e "$program" ] || $cc "$program" -o "${program%.c}" -L"$build" -ldnscache -ldnscache-linux \
                $(pkg-config --libs glib-2.0) -Wl,-rpath,"$build"
        done
        grep -l '^\$ ' "$work"/blocks/[0-9]* > "$work/sessions" || { echo "$page: no session"; exit 1; }
        while read -r session; do
            play "$session" > "$work/actual"
            diff -u --label "$page" --label actual "$session" "$work/actual"
        done < "$work/sessions"
        [ "${page%.1}" != "$page" ] || [ -e "$program" ] || { echo "$page: no program"; exit 1; }
    done
    ;;
esac
