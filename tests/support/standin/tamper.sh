#!/bin/sh
# Copies a signed file and flips one byte of its code, so the signature no
# longer matches the content.   tamper.sh IN OUT
set -eu
cp "$1" "$2"
offset=1100
byte=$(od -An -tu1 -j "$offset" -N1 "$2" | tr -d ' ')
printf "$(printf '\\%03o' $((byte ^ 255)))" | dd of="$2" bs=1 seek="$offset" conv=notrunc 2>/dev/null
