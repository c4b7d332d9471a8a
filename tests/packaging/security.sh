#!/bin/bash
# security.sh UNIT README: the unit is one that systemd understands, and leaves the daemon no more than its
# comment (and the README, where it gives the figure) says.
set -euo pipefail

stated=$(sed -n 's/.*exposure level \([0-9.]*[0-9]\).*/\1/p' "$1")
[[ -n $stated ]] || { echo "the unit states no exposure level" >&2; exit 1; }
if grep -o 'exposure is [0-9.]*[0-9]' "$2" | grep -v " $stated\$"; then
	echo "the README says so, the unit exposure level $stated" >&2
	exit 1
fi
systemd-analyze security --offline=true --no-pager --threshold="${stated/./}" "$1" | tail -n 1

# Under the names of an installed system, which need not be this one; systemd-analyze only says what it misses.
complaints=$(systemd-analyze verify --man=no "$1" 2>&1 | grep -v 'is not executable: No such file' || true)
[[ -z $complaints ]] || { echo "$complaints" >&2; exit 1; }
