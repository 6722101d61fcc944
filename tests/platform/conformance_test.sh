#!/bin/sh
# conformance_test.sh PROGRAM: the conformance test finds each fault of a platform at the check that is about it, and
# finds nothing there without it.
set -u
program=$1
failures=0

while IFS=: read -r fault check; do
    FAULT=none "$program" "$check" > /dev/null 2>&1 || { echo "without fault: $check"; failures=$((failures + 1)); }
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
waits at the start:a start does not wait
completes without a code:a child that is killed is a completion
completes without a code:a body that takes too long is a completion
has no text for a code:every code has a text
writes texts over each other:a text stays as it is
opens once:the routing context opens
binds to anything:a VRF that is not there cannot
binds to anything:a job that is not bound reaches nothing
EOF
[ "$failures" -eq 0 ]
