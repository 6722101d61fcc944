#!/bin/sh
# conformance_test.sh PROGRAM: verify that the conformance test reports each fault in the check that covers it, and
# reports nothing for a platform without a fault.
set -u
program=$1
failures=0

FAULT=none "$program" 2> /dev/null | grep '^not ok' && failures=1
while IFS=: read -r fault check; do
    FAULT=$fault "$program" "$check" 2>&1 | grep -q "^not ok .*$check" || {
        echo "fault not reported: $fault; check: $check"
        failures=$((failures + 1))
    }
done << 'EOF'
hides negative results:what a body returns comes back
truncates the record:what it hands back comes back
corrupts the record:what it hands back comes back
refuses the record:what it hands back comes back
loses the argument:a body sees its argument
hides failures:a body that takes too long is a code
hides failures:a child that is killed is a code
hides failures:a child that leaves without a result
hides failures:also when it has handed something back
returns the last record again:a body that hands nothing back
returns the last record again:what one body handed back is not
refuses a timeout of 0:a timeout of 0
reports failures late:a body that takes too long is a code
shortens timeouts:a body that takes less time
runs a body in a grandchild:a child ends at its timeout
runs a body in a grandchild:a child ends with its host
blocks a child's signals:a child has no signal handler and mask
closes the log in a child:a child can write to a log
stops the host's timer:signals of the host are as before
fails every job after a failure:the job after a failed one
runs the body in the host:a body runs in a child of the host
runs the body in the host:a body does not change the host's memory
runs the body in the host:a child that leaves without a result
prints output twice:output comes out once
loses the output:output comes out once
loses the input:input is read from its stream
reaps every child:other children of the host
changes SIGCHLD:signals of the host are as before
leaks a descriptor:no descriptor and no child is left
leaks a child:no descriptor and no child is left
completes without a record:a job in the background ends
delivers twice:a job in the background ends
gives all jobs the same handle:a job in the background ends
gives all jobs the same handle:ten jobs at once
stores a wrong handle:the handle may lie in the argument
consumes completions:waiting for one job takes no
reuses one buffer:the buffer of a completion
reuses one buffer:the buffer outlives jobs
always completes with a record:a completion may be without
always completes with a record:a job that failed brings no record
refuses jobs before there is a queue:a job may be started before
runs each job once more, blocking:a start does not wait
completes without a code:a child that is killed is a completion
completes without a code:a body that takes too long is a completion
has no text for a code:every code has a text
overwrites the text of a code:every code has a text
opens the routing context only once:the routing context opens
fails every binding:VRF 0 can be bound to
aborts on an empty message:the trace takes every message
accepts every VRF:a VRF that is not there cannot
accepts every VRF:a job that is not bound reaches nothing
EOF
[ "$failures" -eq 0 ]
