# Sourced by the shell tests. `check WHAT COMMAND...` runs the command and, when it fails,
# says "FAIL: WHAT" and goes on, so that one run shows every fault; the test ends with
# `exit $fail`. $work is a folder of the test's own (under $work_root, default /tmp),
# removed at exit.
fail=0
check() { "${@:2}" || { echo "FAIL: $1"; fail=1; }; }
work=$(mktemp -d "${work_root:-/tmp}/orvane-test-XXXXXX")
trap 'rm -rf -- "$work"' EXIT
