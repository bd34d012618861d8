# Sourced by the shell tests: `check WHAT COMMAND...` says "FAIL: WHAT" when the command
# fails, and the test goes on but ends with status 1; $work is its folder, gone at exit.
fail=0
check() { "${@:2}" || { echo "FAIL: $1"; fail=1; }; }
work=$(mktemp -d "${work_root:-/tmp}/orvane-test-XXXXXX")
trap 'status=$?; rm -rf -- "$work"; exit $((status ? status : fail))' EXIT
