# steps.sh: how the scripts that source this from the checkout's root run and count steps.
passed=0
failed=0
skipped=0
jobs=$(nproc)
mkdir -p build

# Runs a named step, and adds what it counts: a ctest summary in its output, otherwise the step as one check. A step
# that cannot be run here ends with status 77 and has said why.
step()
{
	local name=$1 start=$SECONDS result=ok summary='.*[^0-9]([0-9]+) tests? failed out of ([0-9]+)' ran without
	shift
	echo "==== $name"
	"$@" 2>&1 | tee build/step.log || { (($? == 77)) && result=skipped; } || result=FAILED
	if [[ $(<build/step.log) =~ $summary ]]; then
		# Which counts tests that did not run as passed.
		ran=${BASH_REMATCH[2]}
		((failed += BASH_REMATCH[1])) || true
		without=$(grep -c '\*\*\*Skipped' build/step.log || true)
		((skipped += without, passed += ran - BASH_REMATCH[1] - without)) || true
	elif [[ $result == ok ]]; then
		((++passed))
	elif [[ $result == skipped ]]; then
		((++skipped))
	else
		((++failed))
	fi
	echo "==== $name: $result in $((SECONDS - start)) s"
	[[ $result == ok ]]
}

# skip NAME REASON [CHECKS]: a step that cannot be run here.
skip()
{
	echo "==== $1: skipped: $2"
	((skipped += ${3:-1}))
}

# build PRESET [TARGET...]
build()
{
	cmake --preset "$1" -DVEK_TESTS=ON && cmake --build "build/$1" -j "$jobs" ${2:+--target "${@:2}"}
}

# run_tests PRESET [CTEST-ARGUMENT...]
run_tests()
{
	ctest --test-dir "build/$1" --output-on-failure --no-tests=error -j "$jobs" "${@:2}" || return
	# ctest names what was skipped; this says why.
	grep '^skipped: ' "build/$1/Testing/Temporary/LastTest.log" | sort -u || true
}

# The last line, and the status of the whole: what did not run is no success.
summary()
{
	echo "$passed passed, $failed failed, $skipped skipped"
	((failed == 0)) || exit 1
	((skipped == 0)) || exit 77
}
