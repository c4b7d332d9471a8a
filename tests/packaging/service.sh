#!/bin/bash
# service.sh VEKD VEKCTL PACKAGING: the init script's whole life in a sandbox, with what a crash leaves behind, and the
# daemon at work with no more rights than the unit leaves it.
set -euo pipefail
vekctl=$2 packaging=$3
export DAEMON=$1 VEKD_PID=$packaging/vekd-pid
export PATH=$PATH:/usr/sbin:/sbin

fail() { echo "service.sh: $*" >&2; exit 1; }

# expect [STATUS ARGUMENT]...: what the init script answers, call by call.
expect()
{
	while (($# > 0)); do
		local status=0
		"$packaging/vekd.init" "$2" || status=$?
		((status == $1)) || fail "$2 ended with status $status, not $1"
		shift 2
	done
}

# Another user, where the sandbox has one: in an ordinary user's there is only root, whose program of the daemon's name
# would rightly pass for it.
as_other=(setpriv --reuid 65534 --clear-groups)
other=/tmp/${DAEMON##*/}
"${as_other[@]}" true 2>/dev/null || as_other=() other=/tmp/another

daemon_pid() { cat /var/run/vekd.pid; }

expect 3 status 0 stop 0 start
first=$(daemon_pid)
expect 0 start
[[ $(daemon_pid) == "$first" ]] || fail "a second start replaced a daemon that runs"
expect 0 status 0 reload 0 restart
[[ $(daemon_pid) != "$first" ]] || fail "restart did not"

# Killed: the pid file stays, also when its number has become another's.
kill -KILL "$(daemon_pid)"
timeout 10 tail -f --pid "$(daemon_pid)" /dev/null
expect 1 status 0 start 0 stop
cp /bin/sleep "$other" # a user's program of that name
"${as_other[@]}" "$other" 300 &
for left in $$ $! 999999999 '' -1 'no number'; do
	printf %s "$left" >/var/run/vekd.pid
	expect 1 status 0 start 0 status 0 stop
done

# A daemon that ignores the end it is asked for is killed.
expect 0 start
kill -STOP "$(daemon_pid)"
expect 0 stop 3 status

# A login shell of somebody else that is listed on terminal 7, and a launcher for what ends it.
"${as_other[@]}" sleep 300 &
shell=$!
mkdir -p /util
printf '#!/bin/sh\nexec "$@"\n' >/util/suexec
printf '#!/bin/sh\necho PID TT COMMAND; echo %s 136,7 -qzsh\n' "$shell" >/var/ps
chmod 755 /util/suexec /var/ps
mount --bind /var/ps /bin/ps

# The daemon with the unit's rights and file system. Its filter of system calls only systemd can set.
setting() { sed -n "s/^$1=//p" "$packaging/vekd.service"; }
"$VEKD_PID" prepare
unshare --mount bash -euc '
	for path in /var $1; do mount --rbind "$path" "$path"; done
	mount -o remount,bind,ro /var
	umask "$3"
	exec setpriv --bounding-set "-all$2" --no-new-privs "$4" start
' - "$(setting ReadWritePaths | sed 's/ -/ /')" "$(setting CapabilityBoundingSet | tr A-Z a-z | sed 's/ *cap_/,+/g')" \
	"$(setting UMask)" "$packaging/vekd.init"
[[ $(grep CapBnd "/proc/$(daemon_pid)/status") != "$(grep CapBnd /proc/self/status)" ]] || fail "it kept all rights"

for report in login logout; do
	"$vekctl" "$report" --service telnet --username alice --type admin --unique pts/7 --ip 192.0.2.1
done
status=0
wait "$shell" || status=$?
((status == 128 + 15)) || fail "the shell was not ended by the signal that kill sends"
expect 0 stop
[[ ! -e /var/run/vekd.pid ]] || fail "the pid file was not removed"
