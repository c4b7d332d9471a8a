#!/bin/bash
# hardening.sh COMMANDS FILE...: that each program or library was built to make an intruder's work hard:
# position-independent, its tables read-only after the start, bound at once, no executable stack, stack protector and checked copies;
# and by the compile commands, which leave no trace of it, that an overflow is never assumed not to happen.
set -euo pipefail

failed=0
commands=$(grep '"command"' "$1" | grep -v -e ' -o tests/')
if grep -v -e ' -fno-strict-overflow ' <<<"$commands"; then
	echo "compiled without -fno-strict-overflow"
	failed=1
fi
shift
for file in "$@"; do
	facts=$(readelf -W --file-header --segments --dynamic --dyn-syms "$file")
	for fact in 'Type: +DYN' GNU_RELRO 'BIND_NOW|FLAGS.* NOW' 'GNU_STACK.* RW +0x' __stack_chk_fail '__[a-z]+_chk@'; do
		grep -Eq "$fact" <<<"$facts" || { echo "$file: nothing like $fact"; failed=1; }
	done
done
exit "$failed"
