# Sourced by the shell tests: `check WHAT COMMAND...` says "FAIL: WHAT" if the command fails
# and goes on, to show every fault (the test then ends with status 1); $work (in $work_root,
# default /tmp) is the test's own folder, removed at exit.
fail=0
check() { "${@:2}" || { echo "FAIL: $1"; fail=1; }; }
work=$(mktemp -d "${work_root:-/tmp}/orvane-test-XXXXXX")
trap 'status=$?; rm -rf -- "$work"; exit $((status ? status : fail))' EXIT
