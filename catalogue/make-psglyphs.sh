#!/bin/sh
# Writes the glyph list (data/psglyphs) to standard output.
#
#   make-psglyphs.sh [-o OUTPUT] CHARSETS FONTDIR [GLYPHLIST]
#
# OUTPUT     file to write instead of standard output; replaced only when the
#            whole list has been made.
# CHARSETS   the charset file whose fonts and ranges the list must serve
#            (catalogue/charsets-utf-8).
# FONTDIR    a folder holding every font that CHARSETS names, as FONTDIR/NAME
#            (the catalogue's own PFA copies) or FONTDIR/NAME.t1 (the URW
#            originals).
# GLYPHLIST  the public glyph list in the PostScript form that Ghostscript
#            ships (Resource/Init/gs_agl.ps); found under
#            /usr/share/ghostscript when not given.
#
# Each output line is "xxxx name": a code point in four lower-case
# hexadecimal digits, one space, a PostScript glyph name, in code point order.
# The reader has no comment syntax, so the rules live here:
#
# 1. Code points listed: every code point of the public glyph list, every
#    code point that a font names as uniXXXX, and every code point that a
#    charset line covers.
# 2. Each code point gets the first of these names that ALL fonts of the
#    charset file carry in their CharStrings: uniXXXX (upper-case hex, the
#    fonts' own unambiguous spelling), then the public list's names for it in
#    the list's order. Basic Cyrillic thus comes out as afii100xx, which the
#    fonts use, and not as the public list's first choice (Zhecyrillic for
#    U+0416).
# 3. A code point that a charset covers but that no font carries is still
#    printed, so it must name a glyph that exists. Blanks of the Unicode
#    space family become "space", the hyphens U+2010/U+2011 "hyphen", the
#    figure dash U+2012 "endash" (a digit wide in these fonts, as a figure
#    dash should be), the Kelvin and Angstrom signs U+212A/U+212B "K" and
#    "Aring" (the letters they are canonically equal to). Everything else
#    (control characters, the Cyrillic letters, punctuation, currency and
#    letterlike signs the fonts lack, unassigned positions) becomes
#    ".notdef", which every Type 1 font carries and which here draws a blank
#    as wide as a space. Only glyphs that look the same are substituted: a
#    wrong visible sign on a security marking would be worse than a gap.
# 4. A code point outside every charset that no font carries keeps the first
#    name the public list gives it, so that a site adding its own fonts and
#    charset lines still finds the usual names.
#
# Tools: POSIX sh, awk (mawk is enough), sort, t1disasm from t1utils.
set -eu
export LC_ALL=C

output=
if [ "${1:-}" = -o ] && [ $# -ge 2 ]; then
    output=$2
    shift 2
fi
if [ $# -lt 2 ] || [ $# -gt 3 ]; then
    echo "usage: $0 [-o OUTPUT] CHARSETS FONTDIR [GLYPHLIST]" >&2
    exit 2
fi
charsets=$1
fontdir=$2
if [ $# -eq 3 ]; then
    agl=$3
else
    agl=$(ls -d /usr/share/ghostscript/*/Resource/Init/gs_agl.ps 2>/dev/null | sort -V | tail -n 1)
fi
if [ -z "$agl" ] || [ ! -r "$agl" ]; then
    echo "$0: public glyph list gs_agl.ps not found (Ghostscript)" >&2
    exit 1
fi
[ -r "$charsets" ] || { echo "$0: cannot read $charsets" >&2; exit 1; }
command -v t1disasm >/dev/null || { echo "$0: t1disasm (t1utils) not found" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Font names of all charset lines (fields 5 onward), each once.
fonts=$(awk 'NR > 1 && !/^#/ && NF >= 5 { for (i = 5; i <= NF; i++) print $i }' "$charsets" | sort -u)
if [ -z "$fonts" ]; then
    echo "$0: $charsets names no fonts" >&2
    exit 1
fi

# The CharStrings names of each font, one per line.
count=0
for font in $fonts; do
    if [ -r "$fontdir/$font" ]; then
        file=$fontdir/$font
    elif [ -r "$fontdir/$font.t1" ]; then
        file=$fontdir/$font.t1
    else
        echo "$0: font $font not found in $fontdir" >&2
        exit 1
    fi
    t1disasm "$file" > "$work/disasm"
    awk '/\/CharStrings/ { inside = 1; next }
         inside && /^\/[^ ]+ \{$/ { print substr($1, 2) }' "$work/disasm" | sort -u > "$work/font.$count"
    if [ ! -s "$work/font.$count" ]; then
        echo "$0: no CharStrings found in $file" >&2
        exit 1
    fi
    count=$((count + 1))
done
# Names that every font carries.
cat "$work"/font.* | sort | uniq -c | awk -v n="$count" '$1 == n { print $2 }' > "$work/common"

awk -v common="$work/common" -v charsets="$charsets" '
function hexval(s,    i, v, d) {
    v = 0
    s = tolower(s)
    for (i = 1; i <= length(s); i++) {
        d = index("0123456789abcdef", substr(s, i, 1))
        if (d == 0)
            return -1
        v = v * 16 + d - 1
    }
    return v
}
function has(name) { return (name in present) }
BEGIN {
    while ((getline line < common) > 0) {
        present[line] = 1
        # uniXXXX names: four upper-case hexadecimal digits, nothing more.
        if (line ~ /^uni[0-9A-F][0-9A-F][0-9A-F][0-9A-F]$/)
            listed[hexval(substr(line, 4))] = 1
    }
    close(common)
    number = 0
    while ((getline line < charsets) > 0) {
        number++
        if (number == 1 || line ~ /^#/)
            continue
        split(line, field, " ")
        if (field[1] == "" || field[2] == "")
            continue
        first = hexval(field[1]); last = hexval(field[2])
        for (c = first; c >= 0 && c <= last && c <= 65535; c++) {
            covered[c] = 1
            listed[c] = 1
        }
    }
    close(charsets)
}
# The reverse table of gs_agl.ps: "  16#XXXX   [/name1 /name2]".
/^  16#[0-9A-Fa-f]+[ \t]*\[/ {
    code = $1
    sub(/^16#/, "", code)
    c = hexval(code)
    if (c < 0 || c > 65535)
        next
    names = $0
    sub(/^[^[]*\[/, "", names)
    sub(/\].*$/, "", names)
    gsub(/\//, " ", names)
    aglnames[c] = names
    listed[c] = 1
}
END {
    for (c = 0; c <= 65535; c++) {
        if (!(c in listed))
            continue
        choice = ""
        uni = sprintf("uni%04X", c)
        if (has(uni))
            choice = uni
        if (choice == "" && (c in aglnames)) {
            k = split(aglnames[c], candidate, " ")
            for (i = 1; i <= k && choice == ""; i++)
                if (has(candidate[i]))
                    choice = candidate[i]
        }
        if (choice == "" && (c in covered)) {
            if ((c >= 8192 && c <= 8202) || c == 8239 || c == 8287)
                choice = "space"      # U+2000-200A, U+202F, U+205F
            else if (c == 8208 || c == 8209)
                choice = "hyphen"     # U+2010, U+2011
            else if (c == 8210)
                choice = "endash"     # U+2012 figure dash: a digit wide, as the en dash here
            else if (c == 8490)
                choice = "K"          # U+212A Kelvin sign, canonically U+004B
            else if (c == 8491)
                choice = "Aring"      # U+212B Angstrom sign, canonically U+00C5
            else
                choice = ".notdef"
            if (!has(choice))
                choice = ".notdef"
        }
        if (choice == "" && (c in aglnames)) {
            split(aglnames[c], candidate, " ")
            choice = candidate[1]
        }
        if (choice != "")
            printf "%04x %s\n", c, choice
    }
}
' "$agl" > "$work/psglyphs"

if [ -n "$output" ]; then
    cp "$work/psglyphs" "$output.tmp"
    mv "$output.tmp" "$output"
else
    cat "$work/psglyphs"
fi
