#!/bin/bash
# hardening.sh FILE...: that each program or library was built to make an intruder's work hard: position-independent,
# its tables read-only after the start, bound at once, no executable stack, stack protector and checked copies.
set -euo pipefail

failed=0
for file in "$@"; do
	# expect WHAT OPTION PATTERN: readelf says it of the file.
	expect()
	{
		grep -Eq "$3" <<<"$(readelf -W "$2" "$file")" || { echo "$file: $1"; failed=1; }
	}
	expect "not position-independent" -h 'Type: +DYN'
	expect "no RELRO" -l 'GNU_RELRO'
	expect "not bound at once" -d 'BIND_NOW|FLAGS.* NOW'
	expect "an executable stack" -l 'GNU_STACK.* RW +0x'
	expect "no stack protector" --dyn-syms '__stack_chk_fail'
	expect "no fortified calls" --dyn-syms '__[a-z]+_chk@'
done
exit "$failed"
