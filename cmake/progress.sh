#!/bin/bash
# cmake/progress.sh TITLE LOG COMMAND...
# Runs the command with its output in LOG. On the standard output one line tells how far it is, in steps of ten percent
# as ninja and apt (APT::Status-Fd) report them, and how long it took. When the command fails, the end of LOG follows,
# and the status is the command's.
set -o pipefail
title=$1 log=$2
shift 2
mkdir -p "$(dirname "$log")"

show()
{
    local line tens=0 percent
    while IFS= read -r line; do
        if [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
            percent=$((100 * BASH_REMATCH[1] / BASH_REMATCH[2]))
        elif [[ $line =~ ^dlstatus:[0-9]*:([0-9]+) ]]; then # apt downloads, then installs
            percent=$((BASH_REMATCH[1] / 2))
        elif [[ $line =~ ^pmstatus:[^:]*:([0-9]+) ]]; then
            percent=$((50 + BASH_REMATCH[1] / 2))
        else
            continue
        fi
        for (( ; tens + 10 <= percent; tens += 10)); do printf ' %s' $((tens + 10)); done
    done
}

printf '%s (log: %s), percent done:' "$title" "$log"
SECONDS=0
status=0
"$@" 2>&1 </dev/null | tee "$log" | show || status=$?
if [ $status = 0 ]; then
    echo "; $SECONDS s"
else
    echo "; failed after $SECONDS s"
    tail -n 40 "$log"
fi
exit $status
