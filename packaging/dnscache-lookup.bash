# shellcheck shell=bash
# Completion of dnscache-lookup: options, VRFs of this machine, host names.
_dnscache_lookup()
{
    local options='-s --service -V --vrf -t --timeout -l --lifetime -n --times --no-wait -j --json -v --verbose
        --vrfs --version -h --help'
    local current=${COMP_WORDS[COMP_CWORD]} before=("${COMP_WORDS[@]:1:COMP_CWORD-1}")
    # The shell splits --vrf=1 into three words.
    if [[ $current == = ]]; then
        current=''
    elif [[ ${before[*]: -1} == = ]]; then
        unset 'before[-1]'
    fi

    COMPREPLY=()
    case ${before[*]: -1} in
    --vrf | -V | -[jv]*V)
        mapfile -t COMPREPLY < <(compgen -W "$("$1" --vrfs 2> /dev/null | cut -d ' ' -f 1)" -- "$current")
        return
        ;;
    --service | --timeout | --lifetime | --times | -[stln] | -[jv]*[stln]) return ;; # a number
    esac
    if [[ $current == -* && " ${before[*]} " != *' -- '* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ " ${before[*]} " == *' --vrfs '* ]]; then
        return # it takes no host
    elif declare -F _known_hosts_real > /dev/null; then # of the package bash-completion
        _known_hosts_real -- "$current"
    else
        mapfile -t COMPREPLY < <(compgen -A hostname -- "$current")
    fi
}
complete -F _dnscache_lookup dnscache-lookup
