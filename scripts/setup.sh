#!/bin/bash
# The main job on a fresh Debian 12 machine, as root: installs the build
# dependencies, builds and installs quillet with its font catalogue, marks
# the bundled example job in simplex and duplex mode and renders the first
# pages of both results to PNG pictures in out/.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-dependencies.sh --example
cmake -S . -B build -DBUILD_TESTING=OFF
cmake --build build --parallel "$(nproc)"
cmake --install build

quillet=$(command -v quillet || echo /usr/local/bin/quillet)
mkdir -p out
for mode in simplex duplex; do
    # quillet rewrites the variables file, so each run gets its own copy.
    cp examples/job.vars "out/$mode.vars"
    flag=()
    [ "$mode" = duplex ] && flag=(--duplex)
    "$quillet" "${flag[@]}" examples/document.ps examples/marker.tmpl "out/$mode.vars" "out/example-$mode.ps"
    gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=png16m -r60 -dFirstPage=1 -dLastPage=2 \
        -sOutputFile="out/example-$mode-%d.png" "out/example-$mode.ps"
done
echo "Marked documents: out/example-simplex.ps, out/example-duplex.ps"
echo "Pictures of their first pages: out/example-*-1.png, out/example-*-2.png"
