# Completion of vekctl for bash. Commands and options come from vekctl's own help and values from vekctl itself, so
# that this never names one that is not there. Names of users are left out on purpose: a list of words is expanded
# by the shell.

_vekctl_words() # the commands and options that the help after "$@" lists
{
	vekctl "$@" --help 2>/dev/null | awk '
		/^[A-Z].*:$/ { commands = ($0 == "Subcommands:"); next }
		commands && /^  [a-z]/ { print $1 }
		/^  -/ { n = split($1, names, ","); for (i = 1; i <= n; i++) if (names[i] ~ /^--/) print names[i] }'
}

_vekctl()
{
	local cur=${COMP_WORDS[COMP_CWORD]} at=$((COMP_CWORD - 1)) IFS=$'\n' word words before="" after="" quoted="" i
	local -a path=()
	[[ $cur == = ]] && cur=""
	[[ ${COMP_WORDS[at]} == = ]] && ((at--)) # --type=admin is three words
	for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
		[[ $word =~ ^[a-z-]+$ && $word != -* ]] || continue
		if _vekctl_words "${path[@]}" | grep -qxe "$word"; then path+=("$word"); fi
	done
	[[ $cur == [\"\']* ]] && quoted=yes # the quotation stays open
	cur=${cur//[\\\"\']/}
	case ${COMP_WORDS[at]} in
	--type) words=$(vekctl words types) ;;
	--service) words=$(vekctl words services) ;;
	--time) words=$'relative\nabsolute' ;;
	--sort | --columns)
		words=$(vekctl words columns)
		[[ $cur == *,* ]] && before=${cur%,*},
		[[ ${cur##*,} == -* ]] && before+=-
		;;
	--user | --username | --user-part | --ip | --ip6 | --unique | --client | --timeout | --for | --count | --minutes) return ;;
	*)
		words=$(_vekctl_words "${path[@]}")
		if [[ $cur != -* ]]; then
			case "${path[*]}" in
			report) words=$(vekctl words events) ;;
			config$'\n'get) words=$(vekctl words keys) ;;
			config$'\n'set) words=$(vekctl words keys) after== ;;
			esac
		fi
		;;
	esac
	mapfile -t COMPREPLY < <(compgen -W "$words" -- "${cur#"$before"}")
	for i in "${!COMPREPLY[@]}"; do
		[[ $quoted ]] || printf -v "COMPREPLY[i]" %q "${COMPREPLY[i]}"
		COMPREPLY[i]=$before${COMPREPLY[i]}$after
	done
	if [[ -n $after ]]; then compopt -o nospace 2>/dev/null; fi
}

complete -F _vekctl vekctl
