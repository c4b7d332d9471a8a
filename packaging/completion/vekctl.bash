# Completion of vekctl for bash. Commands and options come from vekctl's own help, so that this never names
# one that is not there. Names of users are left out on purpose: a list of words is expanded by the shell.

_vekctl_words() # the commands and options that the help after "$@" lists
{
	vekctl "$@" --help 2>/dev/null | awk '
		/^[A-Z].*:$/ { commands = ($0 == "Subcommands:"); next }
		commands && /^  [a-z]/ { print $1 }
		/^  -/ { n = split($1, names, ","); for (i = 1; i <= n; i++) if (names[i] ~ /^--/) print names[i] }'
}

_vekctl()
{
	local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word words
	local -a path=()
	for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
		[[ $word =~ ^[a-z-]+$ && $word != -* ]] || continue
		if _vekctl_words "${path[@]}" | grep -qxe "$word"; then path+=("$word"); fi
	done
	case $previous in
	--type) words="admin user guest ext limited ext-group" ;;
	--service) words="console telnet ssh http/https ftp dialin 802.1x xauth mac-auth" ;;
	--sort | --columns) words="username service type address client since expires login_time lease_time" ;;
	--user | --username | --ip | --ip6 | --unique | --timeout | --for | --count | --minutes) return ;;
	*) words=$(_vekctl_words "${path[@]}") ;;
	esac
	mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
}

complete -F _vekctl vekctl
