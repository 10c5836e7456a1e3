#!/bin/bash
# Benchmark of the installed quillet, in two parts. Runs after
# `bash scripts/setup.sh`, as root on Debian 12; installs its own tools.
#
#   bash scripts/bench.sh [--rounds N] [--part filter|queue|driverless|all]
#                         [--pages "2000 20000"] [--one-page-runs N]
#                         [--queue-one-page-runs N]
#
# filter: quillet against CUPS's pstops filter and the floor (reading the
#   input once and writing an output-sized file once), on enscript documents
#   of 2,000 and 20,000 pages and on a one-page job, with a template of six
#   strings and with the shipped example template (examples/marker.tmpl).
# queue: the print queue's whole path without a print server: the installed
#   backend run as the print server runs it, in front of a stand-in real
#   backend that reads the stream and notes when its first byte came, on
#   enscript jobs of 1, 20 and 1,000 pages and a 20-page job made by pdftops;
#   beside it CUPS's gstopdf filter on the same jobs, and the stand-in alone.
# driverless: a 20-page PDF job from lp to its completion on a private print
#   server, through a quillet queue and through a plain driverless queue
#   (lpadmin -m everywhere) to the same simulated IPP Everywhere printer
#   (CUPS's ippeveprinter), once for a printer that takes PDF and once for
#   one that takes PWG raster only.
#
# The tools run interleaved, each round in another order, all the same way:
# through /usr/bin/time (peak RSS) with a minimal environment, wall time taken
# around that. The tables show medians over the rounds. Nothing is written
# outside a temporary folder, and /etc/cups is not touched. With KEEP_BENCH=1
# in the environment the folder stays, with every run's seconds and peak RSS
# in its LABEL.runs files.
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=5
part=all
page_counts="2000 20000"
one_page_runs=20
queue_one_page_runs=5
while [ $# -gt 0 ]; do
    case $1 in
        --rounds) rounds=$2; shift 2 ;;
        --part) part=$2; shift 2 ;;
        --pages) page_counts=$2; shift 2 ;;
        --one-page-runs) one_page_runs=$2; shift 2 ;;
        --queue-one-page-runs) queue_one_page_runs=$2; shift 2 ;;
        -h | --help) sed -n '2,27p' "$0"; exit 0 ;;
        *) echo "bench: unknown argument $1" >&2; exit 2 ;;
    esac
done
if [ "$rounds" -lt 1 ] || [ "$one_page_runs" -lt 1 ] || [ "$queue_one_page_runs" -lt 1 ]; then
    echo "bench: --rounds and the run counts need a positive number" >&2
    exit 2
fi
case $part in
    filter | queue | driverless | all) ;;
    *) echo "bench: --part is filter, queue, driverless or all" >&2; exit 2 ;;
esac
if [ "$(id -u)" -ne 0 ]; then
    echo "bench: run as root (the backend runs as root, as the print server runs it)" >&2
    exit 1
fi

bash scripts/install-dependencies.sh --bench

quillet=$(command -v quillet || echo /usr/local/bin/quillet)
backend=/usr/lib/cups/backend/quillet
pstops=/usr/lib/cups/filter/pstops
gstopdf=/usr/lib/cups/filter/gstopdf
for tool in "$quillet" "$backend" "$pstops" "$gstopdf" /usr/bin/time /usr/bin/enscript /usr/bin/ppdc \
    /usr/bin/ps2pdf /usr/bin/pdftops; do
    if [ ! -x "$tool" ]; then
        echo "bench: $tool is missing; install quillet with scripts/setup.sh first" >&2
        exit 1
    fi
done

work=$(mktemp -d /tmp/quillet-bench.XXXXXX)
trap '[ -n "${KEEP_BENCH:-}" ] || rm -rf "$work"' EXIT
# The marking account of the queue part reaches its job's folders below here.
chmod 0711 "$work"
# The verdicts of all targets, printed at the end.
: >"$work/targets"

# The variables of the queues' example template.
queue_variables=$work/queue.vars
cat >"$queue_variables" <<'EOF'
LABEL_NAME=CONFIDENTIAL_INTERNAL
mac-job-mac-level-name=Для служебного пользования
EOF

# The filter part's own template: six strings with page numbers.
cat >"$work/six.tmpl" <<'EOF'
replace_underscore=1
any:bold:14::label:top-center:[LABEL_NAME]
any:normal:9::user:top-left:User {job-originating-user-name}
any:normal:9::date:top-right:[DATE]
any:normal:9::level:bottom-left:{mac-job-mac-level-name}
any:normal:9::copy:bottom-center:Copy {CURRENT_COPY}, sheet {CURRENT_PAGE_CONTINUOUS}
any:normal:9:underline:pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}
EOF
cat >"$work/six.vars" <<'EOF'
job-originating-user-name=ivanov@EXAMPLE.ORG
LABEL_NAME=CONFIDENTIAL_INTERNAL
mac-job-mac-level-name=CONFIDENTIAL
copies=1
CURRENT_COPY=1
PAGE_FORMAT=A4
LANDSCAPE=0
EOF
# The shipped example: several styles, first-page strings, Cyrillic strings.
cp examples/marker.tmpl "$work/example.tmpl"
cp examples/job.vars "$work/example.vars"
templates="six example"

# Enscript documents of 60 text lines a page.
make_document() { # pages file
    awk -v lines=$(($1 * 60)) 'BEGIN {
        for (i = 1; i <= lines; i++)
            printf "%7d  The quick brown fox jumps over the lazy dog; line %d of the job.\n", i, i
    }' >"$work/text"
    enscript -q --lines-per-page=60 --header='Benchmark job|$n|Page $% of $=' -p "$2" "$work/text"
    rm -f "$work/text"
}

# One environment for every filter, as a CUPS filter sees it.
environment=(env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 TMPDIR="$work"
    CONTENT_TYPE=application/postscript FINAL_CONTENT_TYPE=application/vnd.cups-postscript
    PRINTER=bench DEVICE_URI=file:/dev/null CUPS_SERVERROOT="$work/cups" CUPS_DATADIR=/usr/share/cups)
mkdir -p "$work/cups"
label='CONFIDENTIAL INTERNAL'

seconds_between() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.6f", b - a }'; }

# run LABEL OUTPUT COMMAND...: one timed run; appends "seconds kilobytes" to
# $work/LABEL.runs. Standard output goes to OUTPUT. The output files of
# earlier runs are removed before the clock starts: each tool writes a new
# file, as in a print queue, and none pays for freeing another run's file.
# What earlier runs left to go to the disk goes there first, so that no run
# shares the machine with the disk writes of another.
run() {
    local label=$1 output=$2
    shift 2
    local start end
    rm -f "$work/out-quillet.ps" "$work/out-pstops.ps" "$work/out-floor"
    sync
    start=$EPOCHREALTIME
    /usr/bin/time -f '%M' -o "$work/rss" "${environment[@]}" "$@" >"$output" 2>"$work/stderr" </dev/null ||
        { echo "bench: $label failed:" >&2; cat "$work/stderr" >&2; exit 1; }
    end=$EPOCHREALTIME
    echo "$(seconds_between "$start" "$end") $(tail -n 1 "$work/rss")" >>"$work/$label.runs"
}

# median LABEL COLUMN: the median of one column of $work/LABEL.runs.
median() {
    sort -g -k "$2" "$work/$1.runs" | awk -v c="$2" '{ v[NR] = $c }
        END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
megabytes() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }

# ---------------------------------------------------------------------------
# The filter: quillet against pstops and the floor.
filter_part() {
    echo "Making the filter documents..."
    for pages in $page_counts; do
        make_document "$pages" "$work/doc-$pages.ps"
    done
    make_document 1 "$work/doc-1.ps"

    run_quillet() { # label template document mode
        local flag=()
        [ "$4" = duplex ] && flag=(--duplex)
        cp "$work/$2.vars" "$work/job-run.vars"
        run "$1" /dev/null "$quillet" "${flag[@]}" "$3" "$work/$2.tmpl" "$work/job-run.vars" "$work/out-quillet.ps"
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

    # Output sizes, from one run of each before timing (also warms the cache).
    local pages mode template key document round step
    for pages in $page_counts; do
        for mode in simplex duplex; do
            for template in $templates; do
                run_quillet warmup "$template" "$work/doc-$pages.ps" "$mode"
                stat -c %s "$work/out-quillet.ps" >"$work/size-$template-$pages-$mode"
            done
            run_pstops warmup "$work/doc-$pages.ps" "$mode"
        done
    done

    echo "Timing the filter, $rounds rounds..."
    for round in $(seq 1 "$rounds"); do
        for pages in $page_counts; do
            for mode in simplex duplex; do
                key=$pages-$mode
                document=$work/doc-$pages.ps
                # Each round starts with another tool.
                for step in 0 1 2 3 4; do
                    case $(((step + round) % 5)) in
                        0) run_floor "floor-six-$key" "$document" "$(cat "$work/size-six-$key")" ;;
                        1) run_pstops "pstops-$key" "$document" "$mode" ;;
                        2) run_quillet "quillet-six-$key" six "$document" "$mode" ;;
                        3) run_floor "floor-example-$key" "$document" "$(cat "$work/size-example-$key")" ;;
                        4) run_quillet "quillet-example-$key" example "$document" "$mode" ;;
                    esac
                done
            done
        done
        for _ in $(seq 1 "$one_page_runs"); do
            for step in 0 1 2; do
                case $(((step + round) % 3)) in
                    0) run_pstops pstops-1 "$work/doc-1.ps" simplex ;;
                    1) run_quillet quillet-six-1 six "$work/doc-1.ps" simplex ;;
                    2) run_quillet quillet-example-1 example "$work/doc-1.ps" simplex ;;
                esac
            done
        done
    done

    printf '\nThe filter: quillet %s, pstops of cups %s; medians of %d rounds\n\n' \
        "$("$quillet" --version | awk '{ print $NF }')" \
        "$(dpkg-query -W -f='${Version}' cups-core-drivers 2>/dev/null || echo '?')" "$rounds"
    echo "| template | pages | mode | MB in | MB out | floor s | pstops s | quillet s | quillet/pstops | quillet/floor | quillet RSS MB | pstops RSS MB |"
    echo "|---|---|---|---|---|---|---|---|---|---|---|---|"
    : >"$work/summary"
    local floor ps q rss ps_rss
    for template in $templates; do
        for pages in $page_counts; do
            for mode in simplex duplex; do
                key=$pages-$mode
                floor=$(median "floor-$template-$key" 1)
                ps=$(median "pstops-$key" 1)
                q=$(median "quillet-$template-$key" 1)
                rss=$(median "quillet-$template-$key" 2)
                ps_rss=$(median "pstops-$key" 2)
                awk -v t="$template" -v p="$pages" -v m="$mode" \
                    -v i="$(megabytes "$(stat -c %s "$work/doc-$pages.ps")")" \
                    -v o="$(megabytes "$(cat "$work/size-$template-$key")")" -v f="$floor" -v s="$ps" -v q="$q" \
                    -v r="$rss" -v pr="$ps_rss" 'BEGIN {
                        printf "| %s | %d | %s | %s | %s | %.3f | %.3f | %.3f | %.2f | %.1f | %.1f | %.1f |\n",
                            t, p, m, i, o, f, s, q, q / s, q / f, r / 1024, pr / 1024 }'
                echo "$template $pages $mode $q $ps $floor $rss" >>"$work/summary"
            done
        done
    done
    local p1
    p1=$(median pstops-1 1)
    echo
    echo "One-page job: medians of $((rounds * one_page_runs)) runs each ($rounds rounds of $one_page_runs)."
    echo
    echo "| one-page job, spawn to exit | pstops ms | quillet ms | quillet/pstops |"
    echo "|---|---|---|---|"
    for template in $templates; do
        q=$(median "quillet-$template-1" 1)
        awk -v t="$template" -v q="$q" -v p="$p1" \
            'BEGIN { printf "| %s template | %.1f | %.1f | %.2f |\n", t, p * 1000, q * 1000, q / p }'
        echo "one $template $q $p1" >>"$work/summary"
    done

    # The targets of the filter, checked on this run.
    local largest smallest
    largest=$(echo $page_counts | tr ' ' '\n' | sort -n | tail -n 1)
    smallest=$(echo $page_counts | tr ' ' '\n' | sort -n | head -n 1)
    awk -v largest="$largest" -v smallest="$smallest" '
        function verdict(ok) { return ok ? "met" : "NOT met" }
        $1 == "one" { q1[$2] = $3; p1[$2] = $4; next }
        { k = $1 "-" $2 "-" $3; q[k] = $4; s[k] = $5; f[k] = $6; r[k] = $7 }
        END {
            for (t_i = 1; t_i <= 2; t_i++) {
                t = t_i == 1 ? "six" : "example"
                for (mode_i = 1; mode_i <= 2; mode_i++) {
                    mode = mode_i == 1 ? "simplex" : "duplex"
                    key = t "-" largest "-" mode
                    printf "filter, %s template: %d pages %s quillet/pstops <= 0.3: %.2f, %s\n", t, largest,
                        mode, q[key] / s[key], verdict(q[key] / s[key] <= 0.3)
                    printf "filter, %s template: %d pages %s quillet/floor <= 3: %.1f, %s\n", t, largest, mode,
                        q[key] / f[key], verdict(q[key] / f[key] <= 3)
                    printf "filter, %s template: %d pages %s peak RSS < 20 MB: %.1f MB, %s\n", t, largest,
                        mode, r[key] / 1024, verdict(r[key] < 20 * 1024)
                    if (smallest != largest) {
                        small = t "-" smallest "-" mode
                        printf "filter, %s template: %s peak RSS grows <= 1.2x from %d to %d pages: %.2fx, %s\n",
                            t, mode, smallest, largest, r[key] / r[small], verdict(r[key] / r[small] <= 1.2)
                    }
                }
                printf "filter, %s template: one-page job quillet <= 1.2 x pstops: %.2fx, %s\n", t,
                    q1[t] / p1[t], verdict(q1[t] / p1[t] <= 1.2)
            }
        }' "$work/summary" >>"$work/targets"
}

# ---------------------------------------------------------------------------
# The queue: the backend's whole path, as the print server runs it, against
# CUPS's gstopdf filter on the same jobs.
queue_part() {
    local queue=$work/queue
    mkdir -p "$queue/etc/quillet" "$queue/bin/backend" "$queue/tmp" "$queue/ppd" "$queue/stages" "$queue/out"
    chmod 0711 "$queue" "$queue/tmp"
    chmod 0700 "$queue/etc/quillet"
    # The print server's configuration: its account, and the queue "bench"
    # with the example template and a label.
    printf 'User lp\nGroup lp\n' >"$queue/etc/cups-files.conf"
    install -m 0600 examples/marker.tmpl "$queue/etc/quillet/bench.tmpl"
    install -m 0600 /dev/null "$queue/etc/quillet/bench.vars"
    install -m 0600 "$queue_variables" "$queue/etc/quillet/bench.vars"
    # CUPS's generic PostScript printer, drv:///sample.drv/generic.ppd.
    ppdc -d "$queue/ppd" /usr/share/cups/drv/sample.drv
    local ppd=$queue/ppd/generic.ppd
    # The stand-in real backend: notes the time its first byte came, reads
    # the rest. Mode 0700: run as root, as the print server runs such a file.
    cat >"$queue/bin/backend/bench" <<'EOF'
#!/bin/bash
IFS= read -r -d '' -n 1 _ || true
echo "$EPOCHREALTIME" >"$BENCH_FIRST_BYTE"
exec cat >/dev/null
EOF
    chmod 0700 "$queue/bin/backend/bench"

    echo "Making the queue's jobs..."
    local job
    make_document 1 "$work/job-text-1.ps"
    make_document 20 "$work/job-text-20.ps"
    make_document 1000 "$work/job-text-1000.ps"
    make_document 20 "$work/text-20.ps"
    ps2pdf "$work/text-20.ps" "$work/text-20.pdf"
    pdftops "$work/text-20.pdf" "$work/job-pdf-20.ps"
    local jobs="text-1 text-20 text-1000 pdf-20"
    declare -A pages=([text-1]=1 [text-20]=20 [text-1000]=1000 [pdf-20]=20)

    local options=media=A4
    local queue_environment=(env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 TMPDIR="$queue/tmp"
        PRINTER=bench PPD="$ppd" CUPS_SERVERROOT="$queue/etc" CUPS_DATADIR=/usr/share/cups
        CONTENT_TYPE=application/postscript BENCH_FIRST_BYTE="$queue/first-byte")

    # queue_run LABEL COMMAND...: one timed run, from spawn to exit, with the
    # time the stand-in got its first byte when it ran; appends "seconds
    # first-byte-seconds" to $work/LABEL.runs.
    queue_run() {
        local label=$1
        shift
        local start end first=-
        rm -f "$queue/first-byte"
        start=$EPOCHREALTIME
        "$@" >/dev/null 2>"$work/stderr" || { echo "bench: $label failed:" >&2; cat "$work/stderr" >&2; exit 1; }
        end=$EPOCHREALTIME
        [ -s "$queue/first-byte" ] && first=$(seconds_between "$start" "$(cat "$queue/first-byte")")
        echo "$(seconds_between "$start" "$end") $first" >>"$work/$label.runs"
    }
    run_backend() { # label job
        queue_run "$1" "${queue_environment[@]}" DEVICE_URI=quillet:bench://printer \
            CUPS_SERVERBIN="$queue/bin" FINAL_CONTENT_TYPE=application/vnd.cups-postscript \
            "$backend" 1 ivanov "Benchmark job" 1 "$options" "$work/job-$2.ps"
        grep -q 'outcome=marked-and-sent' "$work/stderr" ||
            { echo "bench: the backend did not send job $2:" >&2; cat "$work/stderr" >&2; exit 1; }
    }
    run_gstopdf() { # label job
        queue_run "$1" "${queue_environment[@]}" DEVICE_URI=bench://printer CUPS_SERVERBIN=/usr/lib/cups \
            FINAL_CONTENT_TYPE=application/pdf "$gstopdf" 1 ivanov "Benchmark job" 1 "$options" "$work/job-$2.ps"
    }
    run_standin() { # label job: the stand-in alone, given the document as a plain queue would
        queue_run "$1" "${queue_environment[@]}" DEVICE_URI=bench://printer CUPS_SERVERBIN="$queue/bin" \
            sh -c 'exec "$0" 1 ivanov "Benchmark job" 1 "$1" <"$2"' "$queue/bin/backend/bench" "$options" \
            "$work/job-$2.ps"
    }
    # The backend's stages by hand, as root without the sandbox, on the same
    # job: where the time goes.
    cat >"$queue/stages/job.vars" <<'EOF'
job-originating-user-name=ivanov
job-id=1
job-name=Benchmark job
printer-name=bench
copies=1
CURRENT_COPY=1
PAGE_FORMAT=A4
LANDSCAPE=0
LABEL_NAME=CONFIDENTIAL_INTERNAL
mac-job-mac-level-name=Для служебного пользования
EOF
    run_stages() { # label job
        local s=$queue/stages
        rm -f "$s/flat.pdf" "$s/pages.ps" "$s/marked.ps" "$s/sheets.pbm" "$s/run.vars"
        cp "$s/job.vars" "$s/run.vars"
        # The backend's own commands: Ghostscript reads standard input in
        # blocks ("-_"), and the proof draws every sheet at 20 dpi.
        queue_run "$1-pdfwrite" sh -c 'exec gs -q -dSAFER -dBATCH -dNOPAUSE -dAutoRotatePages=/None \
            -sDEVICE=pdfwrite -sOutputFile="$1" -_ <"$0"' "$work/job-$2.ps" "$s/flat.pdf"
        queue_run "$1-pdftocairo" pdftocairo -ps -origpagesizes "$s/flat.pdf" "$s/pages.ps"
        queue_run "$1-quillet" "$quillet" "$s/pages.ps" "$queue/etc/quillet/bench.tmpl" "$s/run.vars" \
            "$s/marked.ps"
        queue_run "$1-proof" sh -c 'exec gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=pbmraw -r20 \
            -sOutputFile="$1" -_ <"$0"' "$s/marked.ps" "$s/sheets.pbm"
    }

    # One run of each before timing (checks the set-up, warms the cache).
    for job in $jobs; do
        run_backend warmup "$job"
        run_gstopdf warmup "$job"
        run_stages warmup "$job"
    done

    echo "Timing the queue path, $rounds rounds..."
    local round step repeat runs
    for round in $(seq 1 "$rounds"); do
        for job in $jobs; do
            runs=1
            [ "$job" = text-1 ] && runs=$queue_one_page_runs
            for repeat in $(seq 1 "$runs"); do
                for step in 0 1 2 3; do
                    case $(((step + round + repeat) % 4)) in
                        0) run_backend "backend-$job" "$job" ;;
                        1) run_gstopdf "gstopdf-$job" "$job" ;;
                        2) run_standin "standin-$job" "$job" ;;
                        3) run_stages "stage-$job" "$job" ;;
                    esac
                done
            done
        done
    done

    printf '\nThe queue path: quillet %s, ghostscript %s, poppler %s, gstopdf of cups-filters %s;\n' \
        "$("$quillet" --version | awk '{ print $NF }')" "$(gs --version)" \
        "$(dpkg-query -W -f='${Version}' poppler-utils)" "$(dpkg-query -W -f='${Version}' cups-filters)"
    printf 'medians of %d rounds (the one-page job: %d runs a round)\n\n' "$rounds" "$queue_one_page_runs"
    echo "| job | pages | MB in | backend first byte s | backend total s | backend pages/s | gstopdf s | gstopdf pages/s | backend/gstopdf | stand-in alone first byte ms | added before first byte ms |"
    echo "|---|---|---|---|---|---|---|---|---|---|---|"
    local total first gs_total alone
    : >"$work/queue-summary"
    for job in $jobs; do
        total=$(median "backend-$job" 1)
        first=$(median "backend-$job" 2)
        gs_total=$(median "gstopdf-$job" 1)
        alone=$(median "standin-$job" 2)
        awk -v j="$job" -v p="${pages[$job]}" -v i="$(megabytes "$(stat -c %s "$work/job-$job.ps")")" \
            -v t="$total" -v f="$first" -v g="$gs_total" -v a="$alone" 'BEGIN {
                printf "| %s | %d | %s | %.3f | %.3f | %.1f | %.3f | %.1f | %.2f | %.1f | %.0f |\n",
                    j, p, i, f, t, p / t, g, p / g, t / g, a * 1000, (f - a) * 1000 }'
        echo "$job $total $first $gs_total $alone" >>"$work/queue-summary"
    done

    echo
    echo "Where the time goes: the backend's programs run by hand on the same job, as root without"
    echo "the sandbox (seconds, medians); the rest is the sandboxes, the accounts and the backend's"
    echo "own copying."
    echo
    echo "| job | gs pdfwrite | pdftocairo -ps | quillet | gs proof | sum | backend total | rest |"
    echo "|---|---|---|---|---|---|---|---|"
    local a b c d
    for job in $jobs; do
        a=$(median "stage-$job-pdfwrite" 1)
        b=$(median "stage-$job-pdftocairo" 1)
        c=$(median "stage-$job-quillet" 1)
        d=$(median "stage-$job-proof" 1)
        total=$(median "backend-$job" 1)
        awk -v j="$job" -v a="$a" -v b="$b" -v c="$c" -v d="$d" -v t="$total" 'BEGIN {
            printf "| %s | %.3f | %.3f | %.3f | %.3f | %.3f | %.3f | %.3f |\n",
                j, a, b, c, d, a + b + c + d, t, t - (a + b + c + d) }'
    done

    # The targets of the queue path, checked on this run. "Added before the
    # first byte" is the backend's time from its start to the stand-in's
    # first byte, less the stand-in's own time from its start to its first
    # byte when it is given the same document directly.
    awk '
        function verdict(ok) { return ok ? "met" : "NOT met" }
        { t[$1] = $2; f[$1] = $3; g[$1] = $4; a[$1] = $5; order[NR] = $1 }
        END {
            for (n = 1; n <= NR; n++) {
                j = order[n]
                printf "queue, job %s: whole path <= 2 x gstopdf (aim 1.2 x): %.2fx, %s%s\n", j, t[j] / g[j],
                    verdict(t[j] / g[j] <= 2), t[j] / g[j] <= 1.2 ? " (aim met)" : ""
            }
            added = (f["text-1"] - a["text-1"]) * 1000
            printf "queue, one-page job: added before the first byte <= 200 ms: %.0f ms, %s\n", added,
                verdict(added <= 200)
        }' "$work/queue-summary" >>"$work/targets"
}

# The driverless printers: a private print server (its own configuration,
# spool, state and logs, all in the work folder, listening on a socket
# there) with two queues per simulated printer; each printer runs beside its
# own D-Bus bus and avahi-daemon (tests/support/private-avahi), so that
# nothing of the host's print server, bus or network announcements is used.
driverless_part() {
    local server=$work/driverless
    [ -n "$work" ] && [ -d "$work" ] || exit 1
    mkdir -p "$server/etc/ppd" "$server/etc/ssl" "$server/etc/quillet" "$server/spool/tmp" "$server/cache" \
        "$server/state" "$server/log"
    chmod 0755 "$server"
    chmod 0700 "$server/etc/quillet"
    printf '%s\n' "ServerRoot $server/etc" "RequestRoot $server/spool" "TempDir $server/spool/tmp" \
        "CacheDir $server/cache" "StateDir $server/state" "ServerKeychain $server/etc/ssl" \
        "AccessLog $server/log/access_log" "ErrorLog $server/log/error_log" "PageLog $server/log/page_log" \
        "Printcap $server/state/printcap" "User lp" "Group lp" "SystemGroup root" \
        >"$server/etc/cups-files.conf"
    printf '%s\n' "LogLevel info" "Listen $server/cups.sock" "Browsing No" "BrowseLocalProtocols none" \
        "DefaultAuthType None" "<Location />" "  Order allow,deny" "  Allow all" "</Location>" \
        >"$server/etc/cupsd.conf"
    echo Community >"$server/etc/snmp.conf"
    install -m 0600 examples/marker.tmpl "$server/etc/quillet/default.tmpl"
    install -m 0600 "$queue_variables" "$server/etc/quillet/default.vars"
    local socket=$server/cups.sock
    /usr/sbin/cupsd -f -c "$server/etc/cupsd.conf" -s "$server/etc/cups-files.conf" &
    local cupsd=$!
    local i
    for i in $(seq 100); do
        CUPS_SERVER=$socket lpstat -r >/dev/null 2>&1 && break
        sleep 0.1
    done

    make_document 20 "$work/driverless.ps"
    ps2pdf "$work/driverless.ps" "$work/driverless.pdf"
    chmod 0644 "$work/driverless.pdf"

    local printers=() kind port format
    for kind in pdf pwg; do
        # A port that nothing answers on.
        port=$((20000 + RANDOM % 20000))
        while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((20000 + RANDOM % 20000)); done
        format=application/pdf
        [ "$kind" = pwg ] && format=image/pwg-raster
        mkdir -p "$server/printer-$kind"
        bash tests/support/private-avahi "$server/printer-$kind" -- ippeveprinter -r off -n localhost \
            -p "$port" -c /bin/true -f "$format" -d "$server/printer-$kind" "Bench $kind" \
            >"$server/printer-$kind.log" 2>&1 &
        printers+=($!)
        for i in $(seq 100); do
            ipptool -q -T 2 "ipp://localhost:$port/ipp/print" get-printer-attributes.test 2>/dev/null && break
            sleep 0.1
        done
        CUPS_SERVER=$socket lpadmin -p "plain-$kind" -E -v "ipp://localhost:$port/ipp/print" -m everywhere
        CUPS_SERVER=$socket lpadmin -p "quillet-$kind" -E -v "quillet:ipp://localhost:$port/ipp/print" \
            -m drv:///sample.drv/generic.ppd
    done

    # One job from lp until the server lists it no more (polled every 20 ms);
    # the seconds go to $work/<queue>.runs. A job that did not end completed
    # (refused, cancelled, aborted) stops the benchmark.
    driverless_run() { # queue
        local start end id
        start=$(date +%s.%N)
        id=$(CUPS_SERVER=$socket lp -d "$1" "$work/driverless.pdf" | awk '{ print $4 }')
        while CUPS_SERVER=$socket lpstat -o "$1" | grep -q "^$id "; do
            sleep 0.02
        done
        end=$(date +%s.%N)
        if ! grep -q "\[Job ${id##*-}\] Job completed\." "$server/log/error_log"; then
            echo "bench: job $id on $1 did not complete; the server's log:" >&2
            grep "\[Job ${id##*-}\]" "$server/log/error_log" | tail -20 >&2
            exit 1
        fi
        echo "$(seconds_between "$start" "$end") 0" >>"$work/$1.runs"
    }
    echo "Warming up the driverless queues..."
    local queue
    for queue in plain-pdf quillet-pdf plain-pwg quillet-pwg; do
        driverless_run "$queue"
        rm -f "$work/$queue.runs"
    done
    local round
    for round in $(seq "$rounds"); do
        echo "Driverless round $round of $rounds..."
        if [ $((round % 2)) -eq 1 ]; then
            for queue in plain-pdf quillet-pdf plain-pwg quillet-pwg; do driverless_run "$queue"; done
        else
            for queue in quillet-pwg plain-pwg quillet-pdf plain-pdf; do driverless_run "$queue"; done
        fi
    done
    # unshare, the outermost process of each printer, ignores SIGTERM while
    # it waits for its namespace; SIGKILL ends it and, through
    # --kill-child, every process of the printer's namespace.
    kill "$cupsd" 2>/dev/null || true
    kill -KILL "${printers[@]}" 2>/dev/null || true
    wait "$cupsd" 2>/dev/null || true

    echo
    echo "Driverless printers: a 20-page PDF job from lp to completed, median seconds of $rounds rounds"
    echo
    echo "| Printer | plain driverless queue | quillet queue | quillet / plain |"
    echo "|---|---|---|---|"
    local plain marked name
    for kind in pdf pwg; do
        plain=$(median "plain-$kind" 1)
        marked=$(median "quillet-$kind" 1)
        name=PDF
        [ "$kind" = pwg ] && name="PWG raster"
        awk -v n="$name" -v p="$plain" -v m="$marked" 'BEGIN { printf "| %s | %.2f | %.2f | %.2fx |\n", n, p, m, m / p }'
        awk -v n="$name" -v p="$plain" -v m="$marked" 'BEGIN {
            r = m / p
            printf "driverless, %s printer: quillet queue <= 1.5 x plain queue (aim 1.1 x): %.2fx, %s%s\n",
                n, r, r <= 1.5 ? "met" : "NOT met", r <= 1.1 ? " (aim met)" : "" }' >>"$work/targets"
    done
}

case $part in
    filter) filter_part ;;
    queue) queue_part ;;
    driverless) driverless_part ;;
    all) filter_part; queue_part; driverless_part ;;
esac
echo
echo "Targets:"
cat "$work/targets"
