#!/bin/sh
# make.sh: write the corpora. Each file contains zeros, except for OFFSET=BYTES below; printf writes the bytes.
# A record begins at offset 1 in decode and at offset 8 in completion.
set -eu
cd "$(dirname "$0")"

seed() { # FILE OFFSET=BYTES...
    file=$1
    shift
    mkdir -p "${file%/*}"
    : > "$file"
    for patch; do
        # shellcheck disable=SC2059 # the bytes are a format
        printf "${patch#*=}" | dd of="$file" bs=1 seek="${patch%%=*}" conv=notrunc status=none
    done
}
x=$(printf '%0253d' 0)
name64=$(printf '%.64s' "$x")

two='1085=\002 1097=\020 1209=\002 1117=\012 1129=\034 1309=\012 1470=alias 1665=\002 1673=\003'
seed decode/no_record
seed decode/no_entries 1676='\0'
# shellcheck disable=SC2086 # a list of patches
{
    seed decode/ipv4_and_ipv6 525=host 1037=53 $two
    seed decode/first_node_without_memory 0='\001' $two
    seed decode/name_without_memory 0='\003' $two
    seed decode/lengths_beyond_the_slots $two 1097='\377\377\377\377' 1129='\041'
}
seed decode/nine_entries 1405="$name64" 1470="${name64}x" 1665='\011'
seed decode/negative_count 1665='\377\377\377\377'
seed decode/other_family 1085='\143' 1209='\143' 1665='\001'

entry='8=a:53:0 532=a 1044=53 1092=\002 1104=\020 1216=\002 1672=\001 1680=\003'
# shellcheck disable=SC2086
{
    seed completion/answer $entry
    seed completion/fills_the_cache 2='\117' $entry
    seed completion/fills_it_and_expires 2='\077' 3='\005' 7='\010' $entry 1684='\0\0\117\005\0\014\0\017'
    seed completion/no_buffer_and_jobs_start 2='\020' 5='\012' 7='\001' $entry
    seed completion/failed_body_and_refused_starts 2='\004' 4='\252' 5='\001' $entry
    seed completion/short_record 6='\377' 7='\004' $entry
    seed completion/long_record 6='\001' $entry
    seed completion/storing_without_memory 1='\001' $entry
    seed completion/answering_without_memory 1='\005' $entry 1672='\002'
    seed completion/negative_count_and_removal 7='\006' $entry 1672='\377\377\377\377'
}
seed completion/unterminated 8="$x$x$x$x$x$x$x$x" 1672='\002' 1680='\003'

handback='HDBK\005\0\0\0hello'
result='RSLT\004\0\0\0\052\0\0\0'
seed wire/nothing
seed wire/handback_and_result 3="$handback$result"'ignored'
seed wire/without_a_channel 2='\001' 3="$handback"
seed wire/last_handback_counts 3="${handback}HDBK\001\0\0\0x$result"
seed wire/handback_of_nothing 3="${handback}HDBK\0\0\0\0$result"
seed wire/handback_unfinished 3='HDBK\005\0\0\0he'
seed wire/handback_too_large 3='HDBK\001\0\001\0x'
seed wire/handback_without_memory 1='\001' 3="$handback$result"
seed wire/result_of_wrong_size 3='RSLT\005\0\0\0\052\0\0\0\0'
seed wire/neither_of_both 3='RSLU\004\0\0\0\052\0\0\0'

seed line_reader/requests 0='a\nb 53\nc\t65535 2147483647 \n\n  # none\nd#e\n'
seed line_reader/numbers_too_large 0='a 65536\na 53 2147483648\na 00053\na 000053\na 53 000000000000001\n'
seed line_reader/not_numbers 0='a -1\na 5x\na 53 +1\na 53 0x1\n'
seed line_reader/a_field_too_many 0='a 53 0 b\na 53 0 #b\n'
seed line_reader/not_printable 0='a\001\n\351\n\177\na\r\n'
seed line_reader/nul 0='a\0b\nc'
seed line_reader/longest_name 0="$x\n${x}1\n"
seed line_reader/longest_line 0="a #$x$x$x$x" 1023='\nb #' 1027="$x$x$x$x" 2048='\nc'

seed model/steps 0='0123456789abcdefghijklmnopqrstuvwxyz'
seed model/steps_on_a_full_cache 0='\377 !"#$&/()=?+*~QWERTYUIOPASDFGHJKLZXCVBNM'
