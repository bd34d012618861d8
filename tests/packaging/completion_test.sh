#!/usr/bin/env bash
# Completes orvane-v2v command lines the way bash does on a Tab and checks what is
# offered: options by prefix, folders (names with blanks kept whole) after -p and -o,
# nothing after -n.
#
#   completion_test.sh FILE         source the completion file FILE
#   completion_test.sh --installed  let bash-completion find and load the installed one
set -uo pipefail

if [ "${1:-}" = --installed ]; then
  # bash-completion is written for interactive shells: load it without -e.
  # shellcheck disable=SC1091
  source /usr/share/bash-completion/bash_completion
  __load_completion orvane-v2v || { echo "FAIL: bash-completion found no completion" >&2; exit 1; }
else
  # shellcheck disable=SC1090
  source "$1"
fi
set -e
function_name=$(complete -p orvane-v2v | sed -n 's/.*-F \([^ ]*\) .*/\1/p')
[ -n "$function_name" ] || { echo "FAIL: no completion function for orvane-v2v" >&2; exit 1; }

dir=$(mktemp -d /tmp/orvane-completion.XXXXXX)
trap 'rm -rf -- "$dir"' EXIT
mkdir "$dir/Web Server" "$dir/web01"
touch "$dir/web.vmx"

# Offers the completions for the words given, the last one being completed.
complete_words() {
  COMP_WORDS=(orvane-v2v "$@")
  COMP_CWORD=$#
  COMP_LINE="${COMP_WORDS[*]}"
  COMP_POINT=${#COMP_LINE}
  COMPREPLY=()
  "$function_name" orvane-v2v "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  if [ "${#COMPREPLY[@]}" -gt 0 ]; then printf '%s|' "${COMPREPLY[@]}"; fi
}

failures=0
# words, then the candidates expected (each followed by |, or "none"), tab-separated
cases=(
  "--vi	--virtio|"
  "--dry	--dry-run|"
  "-p	$dir/W	$dir/Web Server|"
  "-y	--output-dir	$dir/web	$dir/web01|"
  "-n	w	none"
)
for case in "${cases[@]}"; do
  IFS=$'\t' read -r -a fields <<<"$case"
  expected=${fields[-1]}
  [ "$expected" = none ] && expected=
  unset 'fields[-1]'
  got=$(complete_words "${fields[@]}")
  if [ "$got" != "$expected" ]; then
    echo "FAIL: orvane-v2v ${fields[*]}<Tab> offered '$got', expected '$expected'" >&2
    failures=$((failures + 1))
  fi
done
[ "$failures" -eq 0 ] && echo "completion: ${#cases[@]} cases pass"
exit "$failures"
