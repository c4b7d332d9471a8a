# steps.sh: how scripts/test and scripts/cross, which source this from the checkout's root, run and count steps.
passed=0
failed=0
jobs=$(nproc)
mkdir -p build

# Runs a named step, and adds what it counts: a ctest summary in its output, otherwise the step as one check.
step()
{
	local name=$1 start=$SECONDS result=ok summary='.*[^0-9]([0-9]+) tests? failed out of ([0-9]+)'
	shift
	echo "==== $name"
	"$@" 2>&1 | tee build/step.log || result=FAILED
	if [[ $(<build/step.log) =~ $summary ]]; then
		((failed += BASH_REMATCH[1], passed += BASH_REMATCH[2] - BASH_REMATCH[1])) || true
	elif [[ $result == ok ]]; then
		((++passed))
	else
		((++failed))
	fi
	echo "==== $name: $result in $((SECONDS - start)) s"
	[[ $result == ok ]]
}

# build PRESET [TARGET...]
build()
{
	cmake --preset "$1" -DVEK_TESTS=ON && cmake --build "build/$1" -j "$jobs" ${2:+--target "${@:2}"}
}

# run_tests PRESET [CTEST-ARGUMENT...]
run_tests()
{
	ctest --test-dir "build/$1" --output-on-failure --no-tests=error -j "$jobs" "${@:2}"
}

# The last line, and the status of the whole.
summary()
{
	echo "$passed passed, $failed failed"
	((failed == 0))
}
