#!/bin/bash
# Turns a Type 1 font (PFB or PFA) into a clean PFA text file.
#   make-pfa.sh INPUT OUTPUT
# Disassembling and reassembling keeps the zero-filled trailer as plain text,
# which interpreters expect.
set -euo pipefail
t1disasm "$1" | t1asm -a > "$2.tmp"
mv "$2.tmp" "$2"
