#!/bin/bash
# The README shows what scripts/demo really prints, but for times and process ids.
set -euo pipefail
cd "$(dirname "$0")/.."

normal()
{
	sed -E 's/[A-Z][a-z]{2} [ 0-9][0-9] //; s/[0-9]{2}:[0-9]{2}:[0-9]{2}/TIME/; s/vekd\[[0-9]+\]/vekd[PID]/; s/ [01]s +(1h|59m)?/ 0s soon/; s/ +/ /g; s/ $//' |
		sed '/./,$!d'
}
printed=$(scripts/demo | sed '/^building/d' | normal)
shown=$(awk '/^```/ { inside = !inside; next } inside' README.md | normal)
diff <(echo "$shown") <(echo "$printed")
