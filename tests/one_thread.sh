#!/bin/bash
# one_thread.sh VEKD: that the daemon, at work, is one process with one thread. Runs in a sandbox.
set -euo pipefail

"$1"
for ((tries = 250; tries > 0; tries--)); do
	[[ -s /var/run/vekd.pid && -S /dev/user-request ]] && break
	sleep 0.02
done
pid=$(</var/run/vekd.pid)
tasks=(/proc/"$pid"/task/*)
sleep 1.1 # a tick later
tasks_later=(/proc/"$pid"/task/*)
kill -TERM "$pid"
if ((${#tasks[@]} != 1 || ${#tasks_later[@]} != 1)); then
	echo "threads: ${tasks[*]} ${tasks_later[*]}"
	exit 1
fi
