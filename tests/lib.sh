# Sourced by the shell tests. `check WHAT COMMAND...` runs the command and, when it fails,
# says "FAIL: WHAT" and goes on, so that one run shows every fault; a test with one ends
# with status 1. $work is a folder of its own (in $work_root, default /tmp), removed at exit.
fail=0
check() { "${@:2}" || { echo "FAIL: $1"; fail=1; }; }
work=$(mktemp -d "${work_root:-/tmp}/orvane-test-XXXXXX")
trap 'status=$?; rm -rf -- "$work"; exit $((status ? status : fail))' EXIT
