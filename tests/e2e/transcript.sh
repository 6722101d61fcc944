#!/bin/bash
# transcript.sh TRANSCRIPT PROGRAM [RESOLVER]: run the commands of a transcript and compare their output with it.
#
# "$ " begins a command, which the shell runs in a fresh folder. Below it are its standard output, its standard error
# after "! ", and its exit status after "= " unless it is 0. "lookup" is the program, with the scripted resolver
# preloaded if one is given. Times appear as "#", and unprintable bytes as cat -v shows them.
set -u
transcript=$1 program=$2 resolver=${3:-}
export PROGRAM=$program RESOLVER=$resolver
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The limits of descriptors in a transcript hold only if the caller leaves none open. Bash reads this script from 255.
for fd in /proc/self/fd/*; do
    fd=${fd##*/}
    if [ "$fd" -gt 2 ] && [ "$fd" -ne 255 ]; then exec {fd}>&-; fi
done

lookup() {
    ASAN_OPTIONS="verify_asan_link_order=0:${ASAN_OPTIONS:-}" SCRIPT_DIR=. LD_PRELOAD=$resolver "$program" "$@"
}

while IFS= read -r line; do
    case $line in
    '$ '*)
        printf '%s\n' "$line"
        folder=$(mktemp -d -p "$work")
        (cd "$folder" && eval "${line#\$ }") > "$work/out" 2> "$work/err" < /dev/null
        status=$?
        awk '{ print (FILENAME ~ /err$/ ? "! " : "") $0 }' "$work/out" "$work/err" |
            cat -v | sed 's/"elapsed_us":[1-9][0-9]\{0,8\},/"elapsed_us":#,/'
        [ $status -eq 0 ] || echo "= $status"
        ;;
    '##'* | '') printf '%s\n' "$line" ;;
    esac
done < "$transcript" > "$work/actual"

[ "$(grep -c '^\$ ' "$work/actual")" -gt 0 ] && diff -u "$transcript" "$work/actual"
