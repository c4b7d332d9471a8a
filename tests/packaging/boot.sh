#!/bin/bash
# boot.sh CHECK: one part of the package's life on a booted systemd, in the order in which scripts/boot calls them;
# inside the booted root, with the packages beside this file.
set -euo pipefail
cd "$(dirname "$0")"
limit=10 # seconds that any one condition may take
trap 'echo "boot.sh: line $LINENO failed" >&2; systemctl status --no-pager vekd || true' ERR

await()
{
	local end=$((SECONDS + limit))
	until "$@" >/dev/null 2>&1; do
		((SECONDS < end)) || { echo "waited $limit s for: $*" >&2; return 1; }
		sleep 0.05
	done
}

# install FILE: by apt, which has to have nothing to complain of.
install()
{
	apt-get install -y "./$1" >output 2>&1 || { cat output; return 1; }
	if grep -iE 'could not|cannot|fail|error' output; then
		return 1
	fi
}

pid() { cat /var/run/vekd.pid; }

# It runs as systemd's, and answers anybody.
serves()
{
	await systemctl is-active vekd
	[[ $(systemctl show --property MainPID --value vekd) == "$(pid)" ]]
	setpriv --reuid nobody --regid nogroup --clear-groups vekctl count
}

login() { vekctl login --service http/https --username "$1" --type user --unique "$1"; }

# All there is in the root but what a package manager, a log and systemd keep.
files()
{
	find / -xdev \( -path /packages -o -path /proc -o -path /sys -o -path '/var/log' -o -path '/var/cache/*' -o \
		-path /var/lib/dpkg -o -path /var/lib/apt \) -prune -o -print
	find /dev /run \( -path /run/systemd -o -path '/dev/pts/*' \) -prune -o -print
}

install_it()
{
	files | sort >before
	install first.deb
	serves
	[[ $(systemctl show --property NRestarts --value vekd) == 0 ]]
	[[ $(systemctl is-enabled vekd) == enabled ]]
}

readable()
{
	[[ $(stat -c %a /run/vekd.pid /var/vek_pslist | xargs) == "644 600" ]]
}

kill_it()
{
	local former
	former=$(pid)
	login alice
	kill -KILL "$former"
	replaced() { [[ $(pid) != "$former" ]]; }
	await replaced
	serves
	[[ $(vekctl count) == 0 ]]
}

restart()
{
	local former
	former=$(pid)
	systemctl reload vekd
	[[ $(pid) == "$former" ]]
	systemctl restart vekd
	[[ $(pid) != "$former" ]]
	systemctl stop vekd
	[[ ! -e /run/vekd.pid && $(systemctl show --property Result --value vekd) == success ]]
	systemctl start vekd
	serves
}

# What a crash, a clean-up of /var or a hand that slipped leaves, on the next start.
debris()
{
	systemctl stop vekd
	rm -f /var/vek_pslist /dev/user-notify /run/vekd.lock
	echo 1 >/run/vekd.pid
	systemctl start vekd
	serves
	[[ -f /var/vek_pslist ]]
}

upgrade()
{
	local former
	former=$(pid)
	login alice
	login bob
	install later.deb
	serves
	[[ $(pid) != "$former" && $(dpkg-query -W -f '${Version}' vekd) == *+later ]]
	grep -q 'vekd: .*process '"$former"'.* 2 sessions' output || { cat output; return 1; }
}

remove()
{
	apt-get remove -y -qq vekd
	[[ ! -e /run/vekd.pid && ! -e /dev/user-notify ]]
	# Undone.
	install later.deb
	serves
}

purge()
{
	apt-get purge -y -qq vekd
	files | sort | diff before -
	[[ $(ipcs --shmems --semaphores) != *0x11111111* ]]
	[[ $(systemctl show --property LoadState --value vekd) == not-found ]]
}

case $1 in
install | kill) "${1}_it" ;;
*) "$1" ;;
esac
