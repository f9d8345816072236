#!/usr/bin/env bash
# Runs one Windows program under Wine in the build tree's own prefix.
# The prefix lives in AMBREL_WINEPREFIX, else ./wineprefix under the build tree
# found from the program's own folder (bin/ sits directly in the build tree).
set -eu
prog=$1
if [ -z "${AMBREL_WINEPREFIX:-}" ]; then
  progdir=$(cd "$(dirname "$prog")" && pwd)
  AMBREL_WINEPREFIX=$(dirname "$progdir")/wineprefix
fi
export WINEPREFIX=$AMBREL_WINEPREFIX
export WINEDEBUG=${WINEDEBUG:--all}
# Never let a prefix update stop at the Mono/Gecko install prompts.
export WINEDLLOVERRIDES="mscoree,mshtml=${WINEDLLOVERRIDES:+;$WINEDLLOVERRIDES}"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  "$(dirname "$0")/wine-prefix.sh" create "$WINEPREFIX" >&2
fi
exec wine "$@"
