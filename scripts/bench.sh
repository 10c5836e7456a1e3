#!/bin/bash
# Benchmark of the installed quillet against CUPS's pstops filter and the
# floor (reading the input once and writing an output-sized file once), on
# enscript documents of 2,000 and 20,000 pages and on a one-page job. Runs
# after `bash scripts/setup.sh`, as root on Debian 12; installs its own tools.
#
#   bash scripts/bench.sh [--rounds N] [--pages "2000 20000"] [--one-page-runs N]
#
# The tools run interleaved, each round in another order, all the same way:
# through /usr/bin/time (peak RSS) with the same minimal environment, wall
# time taken around that. The table shows medians over the rounds. Nothing
# is written outside a temporary folder, and /etc/cups is not touched.
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=5
page_counts="2000 20000"
one_page_runs=20
while [ $# -gt 0 ]; do
    case $1 in
        --rounds) rounds=$2; shift 2 ;;
        --pages) page_counts=$2; shift 2 ;;
        --one-page-runs) one_page_runs=$2; shift 2 ;;
        -h | --help) sed -n '2,12p' "$0"; exit 0 ;;
        *) echo "bench: unknown argument $1" >&2; exit 2 ;;
    esac
done
if [ "$rounds" -lt 1 ] || [ "$one_page_runs" -lt 1 ]; then
    echo "bench: --rounds and --one-page-runs need a positive number" >&2
    exit 2
fi

bash scripts/install-dependencies.sh --bench

quillet=$(command -v quillet || echo /usr/local/bin/quillet)
pstops=/usr/lib/cups/filter/pstops
for tool in "$quillet" "$pstops" /usr/bin/time /usr/bin/enscript; do
    if [ ! -x "$tool" ]; then
        echo "bench: $tool is missing; install quillet with scripts/setup.sh first" >&2
        exit 1
    fi
done

work=$(mktemp -d /tmp/quillet-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

# The job: a template of six strings with page numbers, the job's variables.
cat >"$work/marker.tmpl" <<'EOF'
replace_underscore=1
any:bold:14::label:top-center:[LABEL_NAME]
any:normal:9::user:top-left:User {job-originating-user-name}
any:normal:9::date:top-right:[DATE]
any:normal:9::level:bottom-left:{mac-job-mac-level-name}
any:normal:9::copy:bottom-center:Copy {CURRENT_COPY}, sheet {CURRENT_PAGE_CONTINUOUS}
any:normal:9:underline:pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}
EOF
cat >"$work/job.vars" <<'EOF'
job-originating-user-name=ivanov@EXAMPLE.ORG
LABEL_NAME=CONFIDENTIAL_INTERNAL
mac-job-mac-level-name=CONFIDENTIAL
copies=1
CURRENT_COPY=1
PAGE_FORMAT=A4
LANDSCAPE=0
EOF

# The documents: enscript pages of 60 text lines each.
make_document() { # pages file
    awk -v lines=$(($1 * 60)) 'BEGIN {
        for (i = 1; i <= lines; i++)
            printf "%7d  The quick brown fox jumps over the lazy dog; line %d of the job.\n", i, i
    }' >"$work/text"
    enscript -q --lines-per-page=60 --header='Benchmark job|$n|Page $% of $=' -p "$2" "$work/text"
    rm -f "$work/text"
}
echo "Making the documents..."
for pages in $page_counts; do
    make_document "$pages" "$work/doc-$pages.ps"
done
make_document 1 "$work/doc-1.ps"

# One environment for every tool, as a CUPS filter sees it.
environment=(env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 TMPDIR="$work"
    CONTENT_TYPE=application/postscript FINAL_CONTENT_TYPE=application/vnd.cups-postscript
    PRINTER=bench DEVICE_URI=file:/dev/null CUPS_SERVERROOT="$work/cups" CUPS_DATADIR=/usr/share/cups)
mkdir -p "$work/cups"
label='CONFIDENTIAL INTERNAL'

# run LABEL OUTPUT COMMAND...: one timed run; appends "seconds kilobytes" to
# $work/LABEL.runs. Standard output goes to OUTPUT. The output files of
# earlier runs are removed before the clock starts: each tool writes a new
# file, as in a print queue, and none pays for freeing another run's file.
run() {
    local label=$1 output=$2
    shift 2
    local start end
    rm -f "$work/out-quillet.ps" "$work/out-pstops.ps" "$work/out-floor"
    start=$EPOCHREALTIME
    /usr/bin/time -f '%M' -o "$work/rss" "${environment[@]}" "$@" >"$output" 2>"$work/stderr" </dev/null ||
        { echo "bench: $label failed:" >&2; cat "$work/stderr" >&2; exit 1; }
    end=$EPOCHREALTIME
    echo "$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }') $(tail -n 1 "$work/rss")" \
        >>"$work/$label.runs"
}

run_quillet() { # label document mode
    local flag=()
    [ "$3" = duplex ] && flag=(--duplex)
    cp "$work/job.vars" "$work/job-run.vars"
    run "$1" /dev/null "$quillet" "${flag[@]}" "$2" "$work/marker.tmpl" "$work/job-run.vars" "$work/out-quillet.ps"
}
run_pstops() { # label document mode
    local options="page-label='$label'"
    [ "$3" = duplex ] && options+=" sides=two-sided-long-edge"
    run "$1" "$work/out-pstops.ps" "$pstops" 1 bench "Benchmark job" 1 "$options" "$2"
}
run_floor() { # label document size
    run "$1" /dev/null sh -c 'cat "$1" >/dev/null && head -c "$2" /dev/zero >"$3"' floor "$2" "$3" \
        "$work/out-floor"
}

# Output sizes, from one run of each mode before timing (also warms the cache).
for pages in $page_counts; do
    for mode in simplex duplex; do
        run_quillet warmup "$work/doc-$pages.ps" "$mode"
        stat -c %s "$work/out-quillet.ps" >"$work/size-$pages-$mode"
        run_pstops warmup "$work/doc-$pages.ps" "$mode"
    done
done

echo "Timing $rounds rounds..."
for round in $(seq 1 "$rounds"); do
    for pages in $page_counts; do
        for mode in simplex duplex; do
            key=$pages-$mode
            document=$work/doc-$pages.ps
            # Each round starts with another tool.
            for step in 0 1 2; do
                case $(((step + round) % 3)) in
                    0) run_floor "floor-$key" "$document" "$(cat "$work/size-$key")" ;;
                    1) run_pstops "pstops-$key" "$document" "$mode" ;;
                    2) run_quillet "quillet-$key" "$document" "$mode" ;;
                esac
            done
        done
    done
    for _ in $(seq 1 "$one_page_runs"); do
        if [ $((round % 2)) -eq 0 ]; then
            run_pstops pstops-1 "$work/doc-1.ps" simplex
            run_quillet quillet-1 "$work/doc-1.ps" simplex
        else
            run_quillet quillet-1 "$work/doc-1.ps" simplex
            run_pstops pstops-1 "$work/doc-1.ps" simplex
        fi
    done
done

# median LABEL COLUMN: the median of one column of $work/LABEL.runs.
median() {
    sort -g -k "$2" "$work/$1.runs" | awk -v c="$2" '{ v[NR] = $c }
        END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
megabytes() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }

printf '\nquillet %s, pstops of cups %s; medians of %d rounds\n\n' \
    "$("$quillet" --version | awk '{ print $NF }')" \
    "$(dpkg-query -W -f='${Version}' cups-core-drivers 2>/dev/null || echo '?')" "$rounds"
echo "| pages | mode | MB in | MB out | floor s | pstops s | quillet s | quillet/pstops | quillet/floor | quillet RSS MB | pstops RSS MB |"
echo "|---|---|---|---|---|---|---|---|---|---|---|"
for pages in $page_counts; do
    for mode in simplex duplex; do
        key=$pages-$mode
        floor=$(median "floor-$key" 1)
        ps=$(median "pstops-$key" 1)
        q=$(median "quillet-$key" 1)
        rss=$(median "quillet-$key" 2)
        ps_rss=$(median "pstops-$key" 2)
        echo "$pages $mode $rss" >>"$work/rss-by-size"
        awk -v p="$pages" -v m="$mode" -v i="$(megabytes "$(stat -c %s "$work/doc-$pages.ps")")" \
            -v o="$(megabytes "$(cat "$work/size-$key")")" -v f="$floor" -v s="$ps" -v q="$q" -v r="$rss" \
            -v pr="$ps_rss" 'BEGIN {
                printf "| %d | %s | %s | %s | %.3f | %.3f | %.3f | %.2f | %.1f | %.1f | %.1f |\n",
                    p, m, i, o, f, s, q, q / s, q / f, r / 1024, pr / 1024 }'
        echo "$key $q $ps $floor $rss" >>"$work/summary"
    done
done
q1=$(median quillet-1 1)
p1=$(median pstops-1 1)
echo
echo "One-page job: medians of $((rounds * one_page_runs)) runs each ($rounds rounds of $one_page_runs)."
echo
echo "| one-page job | pstops ms | quillet ms | quillet/pstops |"
echo "|---|---|---|---|"
awk -v q="$q1" -v p="$p1" 'BEGIN { printf "| spawn to exit | %.1f | %.1f | %.2f |\n", p * 1000, q * 1000, q / p }'

# The targets of the speed work, checked on this run.
largest=$(echo $page_counts | tr ' ' '\n' | sort -n | tail -n 1)
smallest=$(echo $page_counts | tr ' ' '\n' | sort -n | head -n 1)
echo
awk -v largest="$largest" -v smallest="$smallest" -v q1="$q1" -v p1="$p1" '
    function verdict(ok) { return ok ? "met" : "NOT met" }
    { split($1, k, "-"); q[$1] = $2; s[$1] = $3; f[$1] = $4; r[$1] = $5; pages[k[1]] = 1 }
    END {
        for (mode_i = 1; mode_i <= 2; mode_i++) {
            mode = mode_i == 1 ? "simplex" : "duplex"
            key = largest "-" mode
            printf "target: %d pages %s quillet/pstops <= 0.3: %.2f, %s\n", largest, mode,
                q[key] / s[key], verdict(q[key] / s[key] <= 0.3)
            printf "target: %d pages %s quillet/floor <= 3: %.1f, %s\n", largest, mode,
                q[key] / f[key], verdict(q[key] / f[key] <= 3)
            printf "target: %d pages %s peak RSS < 20 MB: %.1f MB, %s\n", largest, mode,
                r[key] / 1024, verdict(r[key] < 20 * 1024)
            if (smallest != largest) {
                small = smallest "-" mode
                printf "target: %s peak RSS grows <= 1.2x from %d to %d pages: %.2fx, %s\n", mode,
                    smallest, largest, r[key] / r[small], verdict(r[key] / r[small] <= 1.2)
            }
        }
        printf "target: one-page job quillet <= 1.2 x pstops: %.2fx, %s\n", q1 / p1, verdict(q1 / p1 <= 1.2)
    }' "$work/summary"
