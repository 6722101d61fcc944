#!/bin/bash
# completion.bash COMPLETION PROGRAM: check the candidates for command lines, with the hosts below in HOSTFILE.
# shellcheck disable=SC2317 # functions that the completion calls
set -eu
export LC_ALL=C
# shellcheck source=/dev/null
source "$1"
program=$2
function=$(complete -p dnscache-lookup | sed 's/.*-F \([^ ]*\) .*/\1/')
HOSTFILE=$(mktemp)
trap 'rm -f "$HOSTFILE"' EXIT
printf '192.0.2.1 ntp1 ntp2\n192.0.2.3 time.lab\n' > "$HOSTFILE"

line() { sort | paste -sd ' '; }

# expect ARGUMENTS CANDIDATES: the candidates, sorted, are these. The shell splits words at =.
expect() {
    local COMP_WORDS COMP_CWORD COMPREPLY=() actual
    read -ra COMP_WORDS <<< "dnscache-lookup ${1//=/ = }"
    [[ $1 != *' ' ]] || COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    "$function" dnscache-lookup
    actual=$(printf '%s\n' "${COMPREPLY[@]}" | line)
    [[ $actual == "$2" ]] || { echo "dnscache-lookup $1: '$actual' instead of '$2'"; exit 1; }
}

dnscache-lookup() { # replaces the program
    [[ $* == --vrfs ]] && printf '%-10d  %-9s  -\n' 0 host 1 namespace 12 device
}
expect 'ntp1 n' 'ntp1 ntp2'
expect '-jV 1' '1 12'
expect --vrf= '0 1 12'
expect --vrf=1 '1 12'
expect '-s ' ''
expect --lifetime= ''
expect '-jn ' ''
expect '--vrfs ' ''
expect '--vrfs --j' --json
expect '-- -' ''
_known_hosts_real() { COMPREPLY+=("known:$2"); } # of the package bash-completion
expect n known:n
# The options and VRFs are those that the program prints.
dnscache-lookup() { "$program" "$@"; }
expect - "$("$program" --help | sed -n 's/^  \(-.*\)   .*/\1/p' | grep -oE -- '--?[[:alpha:]-]+' | line)"
expect '-V ' "$("$program" --vrfs -j | jq .vrf | line)"
