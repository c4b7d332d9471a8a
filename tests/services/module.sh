#!/bin/bash
# module.sh MODULE: a PAM module is loaded into any program, so it needs libpam and the C library alone, and shows
# nothing but libpam's entry points.
set -euo pipefail
needed=$(readelf --dynamic "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | grep -vE '^(libpam|libc|ld-linux.*)\.so' || true)
[[ -z $needed ]] || { echo "needs $needed" >&2; exit 1; }
shown=$(nm --dynamic --defined-only "$1" | awk '{ print $3 }' | sort | xargs)
[[ $shown == "pam_sm_acct_mgmt pam_sm_authenticate pam_sm_close_session pam_sm_open_session pam_sm_setcred" ]] ||
	{ echo "shows $shown" >&2; exit 1; }
