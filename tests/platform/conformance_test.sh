#!/bin/sh
# conformance_test.sh PROGRAM: the conformance test finds each fault of a platform at the check that is about it, and
# nothing in a platform without fault.
set -u
program=$1
failures=0

FAULT=none "$program" 2> /dev/null | grep '^not ok' && failures=1
while IFS=: read -r fault check; do
    FAULT=$fault "$program" "$check" 2>&1 | grep -q "^not ok .*$check" || {
        echo "not found: $fault, by: $check"
        failures=$((failures + 1))
    }
done << 'EOF'
returns no negative result:what a body returns comes back
cuts the record:what it hands back comes back
spoils the record:what it hands back comes back
refuses the record:what it hands back comes back
loses the argument:a body sees its argument
knows no failure:a body that takes too long is a code
knows no failure:a child that is killed is a code
knows no failure:a child that leaves without a result
knows no failure:also when it has handed something back
brings the last record again:a body that hands nothing back
brings the last record again:what one body handed back is not
takes 0 for no time:a time-out of 0
is late:a body that takes too long is a code
takes seconds for less:a body that takes less time
runs a body in a grandchild:a child ends at its time-out
runs a body in a grandchild:a child ends with its host
blocks a child's signals:a child has no signal handler and mask
closes the log in a child:a child can write to a log
stops the host's timer:signals of the host are as before
fails for good after a failure:the job after a failed one
runs in the host:a body runs in a child of the host
runs in the host:a body does not change the host's memory
runs in the host:a child that leaves without a result
prints twice:output comes out once
loses the output:output comes out once
loses the input:input is read from its stream
collects every child:other children of the host
changes SIGCHLD:signals of the host are as before
leaves a descriptor:no descriptor and no child is left
leaves a child:no descriptor and no child is left
completes without a record:a job in the background ends
delivers twice:a job in the background ends
gives each job the same handle:a job in the background ends
gives each job the same handle:ten jobs at once
keeps the handle to itself:the handle may lie in the argument
takes completions of others:waiting for one job takes no
has one buffer:the buffer of a completion
has one buffer:the buffer outlives jobs
completes with a record always:a completion may be without
completes with a record always:a job that failed brings no record
needs a queue first:a job may be started before
waits at the start:a start does not wait
completes without a code:a child that is killed is a completion
completes without a code:a body that takes too long is a completion
has no text for a code:every code has a text
writes texts over each other:every code has a text
opens once:the routing context opens
binds to nothing:VRF 0 can be bound to
ends at a message without text:the trace takes every message
binds to anything:a VRF that is not there cannot
binds to anything:a job that is not bound reaches nothing
EOF
[ "$failures" -eq 0 ]
