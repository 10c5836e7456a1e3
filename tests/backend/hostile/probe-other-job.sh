#!/bin/sh
# A site program of a marker template, run by the marking of one job while a
# job on another queue is marked. It looks for the other job's folder and
# files and tries to change the other job's template, and prints one line of
# what it managed:
#
#   Probe listed N template yes|no variables yes|no key yes|no wrote yes|no
#
# N counts the folders of other marking runs that it could list, each once:
# folders holding a marking run's files (marker.tmpl, page-code.key,
# copy-N.vars) or another job's data, its own folder left out.
# Arguments: its own token, the other template's token (both without their
# first three letters, so that no template holds the other's whole token),
# the other queue, its own job id, then the folders to search.
own="QTK$1"
other="QTK$2"
other_queue=$3
own_job=$4
shift 4
# The marking run's own temporary folder too.
[ -n "${TMPDIR:-}" ] && set -- "$@" "$TMPDIR"

candidates() {
    find "$@" -maxdepth 3 -type d 2>/dev/null
    find /tmp -maxdepth 2 -type d -name 'quillet-??????' 2>/dev/null
}

now_ms() {
    echo $(($(date +%s%N) / 1000000))
}

listed=0 seen= template=no variables=no key=no wrote=no
# The other job is marked at about the same time: look for it again and
# again for a few seconds (within the time that the suite's definitions give
# a site program), so that the two probes overlap whichever starts first.
deadline=$(($(now_ms) + 5000))
while :; do
    # A folder that may not be listed can still be entered: the marking
    # folder of a work folder has a known name.
    for folder in $(candidates "$@" | sed 'p; s|$|/marking|' | sort -u); do
        names=$(ls -A "$folder" 2>/dev/null) || continue
        [ -n "$names" ] || continue
        grep -qs -e "$own" "$folder"/* && continue
        other_run=no
        case " $(echo $names) " in
        *" marker.tmpl "* | *" page-code.key "* | *" copy-1.vars "*) other_run=yes ;;
        esac
        for file in $(grep -ls -e "$other" "$folder"/*); do
            other_run=yes template=yes
            if printf 'any:bold:12::hijack:top-center:HIJACKED\n' >>"$file" 2>/dev/null; then
                wrote=yes
            fi
        done
        if grep -qsx -e "printer-name=$other_queue" "$folder"/*; then
            other_run=yes variables=yes
        fi
        # A job's key file: "job <id> <key>".
        if grep -hs '^job [0-9]' "$folder"/* | cut -d ' ' -f 2 | grep -qvx -e "$own_job"; then
            other_run=yes key=yes
        fi
        if [ $other_run = yes ]; then
            case " $seen " in *" $folder "*) ;; *) seen="$seen $folder" listed=$((listed + 1)) ;; esac
        fi
    done
    [ "$(now_ms)" -ge "$deadline" ] && break
    sleep 0.2
done
echo "Probe listed $listed template $template variables $variables key $key wrote $wrote"
