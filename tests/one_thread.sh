#!/bin/bash
# one_thread.sh VEKD: that the daemon, at work, is one process with one thread. Runs in a sandbox.
set -euo pipefail

"$1"
sleep 1.5 # it has started, and a tick has passed
pid=$(</var/run/vekd.pid)
tasks=(/proc/"$pid"/task/*)
kill -TERM "$pid"
((${#tasks[@]} == 1)) || { echo "threads: ${tasks[*]}"; exit 1; }
