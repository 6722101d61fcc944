#!/bin/sh
# run.sh PROGRAM RESOLVER: an example host, event by event: each case waits for lines of the host's, then ends it.
set -eu
program=$1 resolver=$2
work=$(mktemp -d)
host=
trap '[ -z "$host" ] || kill -s KILL "$host"; rm -rf "$work"' EXIT

fail() {
    echo "$case: $*"
    exit 1
}

# start PRELOADED NAME: with answers that expire after a second, so that the host's timer is fast.
start() {
    case=$2
    rm -f "$work/lines" "$work/trace" # a child of the last host may still be writing to these
    mkfifo "$work/lines"
    ASAN_OPTIONS="verify_asan_link_order=0:${ASAN_OPTIONS:-}" SCRIPT_DIR=$work LD_PRELOAD=$1 \
        "$program" "$2" 123 0 1 > "$work/trace" 2> "$work/lines" &
    host=$!
    exec 3< "$work/lines"
}

# sees LINE...: the host says these, in this order, among others.
sees() {
    for expected; do
        while read -r line <&3 || fail "ended without saying: $expected"; do
            echo "$line"
            case $line in "$case: "*"$expected"*) break ;; esac
        done
    done
}

# ends [TRACE...]: at once and in order, having done what the library's trace says, and without ever having waited.
ends() {
    kill -s TERM "$host"
    ended=$host host=
    wait "$ended" || fail "exit status $?"
    exec 3<&-
    for expected; do
        grep -qF "$expected" "$work/trace" || fail "not in the trace: $expected"
    done
    grep -q 'Async Name Resolution Job Forked' "$work/trace" || fail "there is no trace"
    ! grep 'blocking spawnlet' "$work/trace" || fail "it waited"
}

start '' localhost
sees 127.0.0.1
ends 'Found in Local Cache'

start '' 192.0.2.9
sees 192.0.2.9
ends

# Both families; and again when they have expired.
start "$resolver" pair.test
sees '192.0.2.1 2001:db8::1' '192.0.2.1 2001:db8::1'
ends 'Marking it as INVALID'

# Found at a later try, when the name is there or the resolver no longer crashes. The script starts with its second call.
touch "$work/late-fail.test.1" "$work/late-crash.test.1"
start "$resolver" late-fail.test
sees 'Name or service not known' 192.0.2.5
ends
start "$resolver" late-crash.test
sees 'child ended without a result' 192.0.2.6
ends

# A job that succeeds and brings no record has left nothing to look up.
start "$resolver" odd.test
sees 'no usable answer' 'no usable answer'
ends

# While a job goes on and on, the timer ticks, and a signal ends the host.
start "$resolver" stuck.test
sees 'no addresses yet' 'no addresses yet' 'no addresses yet'
ends 'Job Already Forked for server:stuck.test'
