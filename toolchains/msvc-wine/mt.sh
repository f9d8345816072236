#!/usr/bin/env bash
# Stands in for Microsoft's mt.exe: CMake hands it "/manifest a b ..." (a list
# after one option), which Microsoft's mt takes and llvm-mt refuses; llvm-mt
# wants one /manifest per input file. /notify_update is left out: its
# "updated" answer (0x41020001) cannot be an exit status here, and CMake then
# takes the merged manifest as it is. The rest passes through unchanged.
set -euo pipefail
args=()
inputs=0
for arg in "$@"; do
  case "$arg" in
    /manifest|-manifest) inputs=1 ;;
    /notify_update|-notify_update) inputs=0 ;;
    /*|-*) inputs=0; args+=("$arg") ;;
    *) if [ "$inputs" -eq 1 ]; then args+=(/manifest "$arg"); else args+=("$arg"); fi ;;
  esac
done
exec /usr/bin/llvm-mt-16 "${args[@]}"
