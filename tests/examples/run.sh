#!/bin/sh
# run.sh PROGRAM RESOLVER: test an example host. Each case starts it, waits for its lines, then terminates it.
set -eu
program=$1 resolver=$2
work=$(mktemp -d)
host=
trap '[ -z "$host" ] || kill -s KILL "$host"; rm -rf "$work"' EXIT

fail() {
    echo "$case: $*"
    exit 1
}

# start PRELOADED NAME: start the host. Answers expire after a second, so that its timer is fast.
start() {
    case=$2
    rm -f "$work/lines" "$work/trace" # a child of the last host may still be writing to these
    mkfifo "$work/lines"
    ASAN_OPTIONS="verify_asan_link_order=0:${ASAN_OPTIONS:-}" SCRIPT_DIR=$work LD_PRELOAD=$1 \
        "$program" "$2" 123 0 1 > "$work/trace" 2> "$work/lines" &
    host=$!
    exec 3< "$work/lines"
}

# expect LINE...: wait until the host has printed these lines, in this order; it may print others.
expect() {
    for expected; do
        while read -r line <&3 || fail "ended without printing: $expected"; do
            echo "$line"
            case $line in "$case: "*"$expected"*) break ;; esac
        done
    done
}

# stop [TRACE...]: send SIGTERM. The host must exit with 0, its trace must have these lines, and no call may block.
stop() {
    kill -s TERM "$host"
    stopped=$host host=
    wait "$stopped" || fail "exit status $?"
    exec 3<&-
    for expected; do
        grep -qF "$expected" "$work/trace" || fail "not in the trace: $expected"
    done
    grep -q 'Async Name Resolution Job Forked' "$work/trace" || fail "the trace shows no job"
    ! grep 'blocking spawnlet' "$work/trace" || fail "the host blocked"
}

start '' localhost
expect 127.0.0.1
stop 'Found in Local Cache'

start '' 192.0.2.9
expect 192.0.2.9
stop

# The host prints both families, and prints both again after they have expired.
start "$resolver" pair.test
expect '192.0.2.1 2001:db8::1' '192.0.2.1 2001:db8::1'
stop 'Marking it as INVALID'

# A later try succeeds, when the name exists or the resolver no longer crashes. The script starts with its second call.
touch "$work/late-fail.test.1" "$work/late-crash.test.1"
start "$resolver" late-fail.test
expect 'Name or service not known' 192.0.2.5
stop
start "$resolver" late-crash.test
expect 'child ended without a result' 192.0.2.6
stop

# A job that succeeds without a record leaves nothing in the cache.
start "$resolver" odd.test
expect 'no usable answer' 'no usable answer'
stop

# While a job never ends, the timer keeps ticking, and a signal terminates the host.
start "$resolver" stuck.test
expect 'no addresses yet' 'no addresses yet' 'no addresses yet'
stop 'Job Already Forked for server:stuck.test'
