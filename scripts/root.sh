# root.sh: a bare Debian 12 root and a way into it, for scripts/boot and scripts/newcomer, which source this from the
# checkout's root. The packages come from where this system's own come from.

mirror()
{
	apt-get indextargets --format '$(LABEL) $(REPO_URI)' 'Created-By: Packages' |
		awk '$1 == "Debian" && !found { print $2; found = 1 }'
}

# make_root DIRECTORY PACKAGE,...: Debian's smallest root with these packages, in an empty directory.
make_root()
{
	local from
	from=$(mirror)
	[[ -n $from ]] || { echo "this system's package lists name no Debian: please run apt-get update" >&2; return 1; }
	[[ $from != https:* ]] || set -- "$1" "$2,ca-certificates"
	mkdir -p "$1" "$PWD/build/debs"
	debootstrap --variant=minbase --include="$2" --cache-dir="$PWD/build/debs" bookworm "$1" "$from" \
		>build/root.log 2>&1 || { tail -n 20 build/root.log >&2; return 1; }
}

# enter_root DIRECTORY OPTIONS: what a root needs to be lived in, and the step into it. For a shell in namespaces of its
# own, made with these options of unshare.
enter_root()
{
	local node
	mount --make-rprivate /
	mount --bind "$1" "$1"
	cd "$1"
	mount -t proc proc proc
	mount -t sysfs -o ro sysfs sys
	[[ $2 != *--cgroup* ]] || mount -t cgroup2 cgroup2 sys/fs/cgroup
	mount -t tmpfs -o mode=755 run run
	mount -t tmpfs -o mode=755 dev dev
	for node in null zero full random urandom tty; do
		: >"dev/$node"
		mount --bind "/dev/$node" "dev/$node"
	done
	mkdir -m 1777 dev/shm
	mkdir dev/pts
	mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
	ln -s pts/ptmx dev/ptmx
	ln -s /proc/self/fd dev/fd
	ln -s fd/0 dev/stdin
	ln -s fd/1 dev/stdout
	ln -s fd/2 dev/stderr
	pivot_root . mnt
	umount -l mnt
	cd /
}

# in_root DIRECTORY OPTIONS COMMAND [ARGUMENT...]: becomes a command that runs as root of that root, with nothing of
# this environment, in namespaces that the options of unshare name beside its own. For a subshell of the script: what
# runs ends with it, and when the script does.
in_root()
{
	# shellcheck disable=SC2086
	exec setpriv --pdeathsig KILL unshare --mount --pid --uts --ipc --fork --kill-child $2 \
		bash -euc "$(declare -f enter_root)"'; enter_root "$1" "$2"; shift 2; exec "$@"' - "$1" "$2" \
		env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "${@:3}"
}
