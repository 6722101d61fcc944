#!/bin/bash
# completion.bash COMPLETION PROGRAM: check the candidates for command lines, with the hosts below in HOSTFILE.
# shellcheck disable=SC2317 # functions that the completion calls
set -u
export LC_ALL=C
# shellcheck source=/dev/null
source "$1"
program=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '192.0.2.1 ntp1 ntp2\n192.0.2.3 time.lab\n' > "$work/hosts"
HOSTFILE=$work/hosts

line() { sort | paste -sd ' '; }

# complete_line LINE: print the candidates, sorted. The shell splits words at =.
complete_line() {
    local COMP_WORDS COMP_CWORD COMPREPLY=()
    read -ra COMP_WORDS <<< "${1//=/ = }"
    [[ $1 != *' ' ]] || COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    "$function" "${COMP_WORDS[0]}"
    printf '%s\n' "${COMPREPLY[@]}" | line
}

expect() { # WHAT EXPECTED ACTUAL
    [[ $2 == "$3" ]] || { echo "$1: '$3' instead of '$2'"; wrong=1; }
}

dnscache-lookup() { # replaces the program
    [[ $* == --vrfs ]] && printf '%-10d  %-9s  -\n' 0 host 1 namespace 12 device
}

function=$(complete -p dnscache-lookup | sed 's/.*-F \([^ ]*\) .*/\1/')
wrong=0
while IFS='[]' read -r _ line expected; do
    expect "[$line]" "${expected# }" "$(complete_line "$line")"
done << 'TABLE'
[dnscache-lookup ] ntp1 ntp2 time.lab
[dnscache-lookup n] ntp1 ntp2
[dnscache-lookup -j ntp1 t] time.lab
[dnscache-lookup --v] --verbose --version --vrf --vrfs
[dnscache-lookup ntp1 --no] --no-wait
[dnscache-lookup -V ] 0 1 12
[dnscache-lookup --vrf 1] 1 12
[dnscache-lookup -jV 1] 1 12
[dnscache-lookup --vrf=] 0 1 12
[dnscache-lookup --vrf=1] 1 12
[dnscache-lookup -V 1 n] ntp1 ntp2
[dnscache-lookup --vrf=1 n] ntp1 ntp2
[dnscache-lookup -s ]
[dnscache-lookup --timeout ]
[dnscache-lookup --lifetime=]
[dnscache-lookup -jn ]
[dnscache-lookup --vrfs ]
[dnscache-lookup --vrfs --j] --json
[dnscache-lookup -- -]
[dnscache-lookup -- n] ntp1 ntp2
TABLE

# With the package bash-completion, hosts come from its own list.
_known_hosts_real() { COMPREPLY+=("known:$2"); }
expect 'hosts of bash-completion' known:n "$(complete_line 'dnscache-lookup n')"

# The options and VRFs are those that the program prints.
options=$("$program" --help | sed -n 's/^  \(-.*\)   .*/\1/p' | grep -oE -- '--?[[:alpha:]-]+' | line)
[[ $options == *--help*--vrfs* ]] || { echo "--help lists no options"; wrong=1; }
expect options "$options" "$(complete_line 'dnscache-lookup -')"
expect VRFs "$("$program" --vrfs -j | jq .vrf | line)" "$(complete_line "$program -V ")"
exit $wrong
