#!/usr/bin/env bash
# The report's figures from record files with known answers (data/report), and its page
# in a real browser.    report_test.sh REPORT-TOOL
set -uo pipefail
report=(/usr/bin/python3 "$(realpath "$1")")
source "$(dirname "$0")/../lib.sh"
cd "$(dirname "$0")/data/report" || exit 1  # relative names: the malformed lines' places read the same anywhere
figures() { "${report[@]}" "${@:2}" kvm01.log kvm02=kvm02.log >"$work/got" && diff -u "$1" "$work/got"; }
check "the text figures" figures expected.txt
check "the JSON figures" figures expected.json --json

page=$work/wave.html
check "the page is written" figures expected.txt --html "$page"
check "an existing page is kept" test "$("${report[@]}" --html "$page" kvm01.log &>/dev/null; echo $?)" != 0
check "the page loads nothing from outside" test -z "$(grep -Eo '<(script|link|img|iframe)[^>]*(src|href)=[^>]*>' "$page")"
# As root the browser needs --no-sandbox; its own home keeps it off the real one.
HOME=$work timeout 120 chromium --headless --no-sandbox --disable-gpu --dump-dom \
  "file://$page" >"$work/dom.html" 2>"$work/chromium.err"
check "the page loads in chromium: $(tail -3 "$work/chromium.err")" grep -q '<table id="results">' "$work/dom.html"
for chart in results durations failures; do  # drawn: an SVG with paths in the loaded DOM
  check "the $chart chart is drawn" grep -Pzq \
    "<figure class=\"chart\" id=\"chart-$chart\"><svg[^>]*>((?!</figure>)[\\s\\S])*<path" "$work/dom.html"; done
