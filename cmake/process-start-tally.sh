#!/usr/bin/env bash
# Prints how the test programs' child processes started during a run, from
# the log RunProcess appends to (tests/sandbox/ChildProcess.h): how many
# started, how many start attempts failed and with which Windows errors, and
# how many children were stopped at their time limit. A start that failed and
# then succeeded on a later attempt is counted here, so it stays visible.
#   process-start-tally.sh LOG
set -eu
log=$1
if [ ! -s "$log" ]; then
  echo "== child processes: none started through RunProcess"
  exit 0
fi
awk '
  $1 == "started"      { started++; if ($2 > 1) late++ }
  $1 == "start-failed" { failed++; errors[$2]++ }
  $1 == "timed-out"    { timedout++ }
  $1 == "pipe-failed"  { pipes++ }
  END {
    line = sprintf("== child processes: %d started (%d after a failed attempt), %d start attempts failed",
                   started, late, failed)
    for (e in errors) line = line sprintf(" [error %s: %d]", e, errors[e])
    line = line sprintf(", %d stopped at their time limit, %d output pipes not made", timedout, pipes)
    print line
  }' "$log"
grep -E '^(start-failed|timed-out|pipe-failed)' "$log" | sed 's/^/   /' || true
