#!/usr/bin/env bash
# Manages the build tree's Wine prefix.
#   create PREFIX  make a new prefix (no Mono/Gecko prompts) and map drive R:
#   start PREFIX   create it if missing and keep one wineserver alive for the run
#   stop PREFIX    stop that wineserver
set -eu
cmd=$1
export WINEPREFIX=$2
export WINEDEBUG=-all
case "$cmd" in
  create)
    mkdir -p "$WINEPREFIX"
    WINEDLLOVERRIDES="mscoree,mshtml=" wineboot -i >/dev/null 2>&1 || true
    wineserver -w || true
    # Drive R: is where development builds of the library live; tests put copies there.
    mkdir -p "$WINEPREFIX/../rdrive"
    ln -sfn "$(cd "$WINEPREFIX/../rdrive" && pwd)" "$WINEPREFIX/dosdevices/r:"
    ;;
  start)
    [ -f "$WINEPREFIX/system.reg" ] || "$0" create "$WINEPREFIX"
    [ -e "$WINEPREFIX/dosdevices/r:" ] || "$0" create "$WINEPREFIX"
    # A persistent server saves about 3 s per Wine process.
    setsid wineserver -p </dev/null >/dev/null 2>&1 || true
    # Start Wine's own background processes (services, device host) now, with
    # no terminal or pipe attached: started by the first test program they
    # would inherit CTest's output pipe and keep it open until the server ends.
    # This also finishes any pending prefix update without Mono/Gecko prompts.
    WINEDLLOVERRIDES="mscoree,mshtml=" wine cmd.exe /c exit </dev/null >/dev/null 2>&1 || true
    ;;
  stop)
    wineserver -k >/dev/null 2>&1 || true
    ;;
  *) echo "usage: $0 create|start|stop PREFIX" >&2; exit 2 ;;
esac
