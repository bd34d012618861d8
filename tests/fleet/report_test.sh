#!/usr/bin/env bash
# The report's figures from record files with known answers, and its page in a real browser.
#   report_test.sh REPORT-TOOL
set -euo pipefail
report=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/fleet-report-test-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail=0

# Relative names, so the malformed lines' places read the same wherever the tree is.
cd "$here/data"
for mode in txt json; do
  args=(kvm01.log kvm02=kvm02.log)
  [ "$mode" = json ] && args=(--json "${args[@]}")
  if ! /usr/bin/python3 "$report" "${args[@]}" >"$work/got.$mode"; then
    echo "FAIL: the report exited non-zero ($mode)"; fail=1
  elif ! diff -u "expected.$mode" "$work/got.$mode"; then
    echo "FAIL: the $mode figures differ from the known answers"; fail=1
  fi
done

page=$work/wave.html
/usr/bin/python3 "$report" --html "$page" kvm01.log kvm02=kvm02.log >/dev/null
if /usr/bin/python3 "$report" --html "$page" kvm01.log >/dev/null 2>&1; then
  echo "FAIL: an existing page was overwritten"; fail=1
fi
# Self-contained: nothing the page loads may come from elsewhere.
if grep -Eo '<(script|link|img|iframe)[^>]*(src|href)=[^>]*>' "$page"; then
  echo "FAIL: the page loads something from outside"; fail=1
fi
# As root the browser needs --no-sandbox; its own home keeps it off the real one.
HOME=$work timeout 120 chromium --headless --no-sandbox --disable-gpu --dump-dom \
  "file://$page" >"$work/dom.html" 2>"$work/chromium.err" || true
if ! grep -q '<table id="results">' "$work/dom.html"; then
  echo "FAIL: the page did not load in chromium"; tail -5 "$work/chromium.err"; fail=1
fi
# A chart is there when its figure in the loaded DOM holds an SVG with drawn paths.
if ! /usr/bin/python3 - "$work/dom.html" <<'PY'
import re, sys
dom = open(sys.argv[1], encoding="utf-8").read()
missing = [c for c in ("chart-results", "chart-durations", "chart-failures")
           if not re.search(r'<figure class="chart" id="%s"><svg[^>]*>((?!</figure>).)*<path' % c,
                            dom, re.S)]
for c in missing:
    print("FAIL: chart %s is missing from the loaded page" % c)
sys.exit(1 if missing else 0)
PY
then
  fail=1
fi
exit $fail
