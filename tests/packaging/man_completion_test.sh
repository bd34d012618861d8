#!/usr/bin/env bash
# The manual page and the bash completion agree with the program: the page has the options
# (with their value placeholders) and exit codes of --help and man renders it without a
# warning; a Tab offers what data/completion.tsv says (DIR: data/completion). round-trip.sh
# runs it on the installed package too.  man_completion_test.sh PROGRAM MAN-PAGE COMPLETION
set -uo pipefail  # no -e: bash-completion, loaded first as in an interactive shell, needs that
source /usr/share/bash-completion/bash_completion && source "$3"
source "$(dirname "$0")/../lib.sh"

# "  -o, --output-dir DIR   ..." and, under "Exit codes:", "  2  ..." in the usage text;
# the page's tags at the first indent of OPTIONS and EXIT STATUS ("128+n" is no number).
"$1" --help | sed -nE 's/^  ((-[a-z], )?--[a-z-]+( [A-Z]+)?)  .*/\L\1/p
  /^Exit codes:/,$ s/^  ([0-9]+)  .*/exit \1/p' | sort >"$work/usage"
MANWIDTH=80 LC_ALL=C man --warnings -l "$2" 2>"$work/warnings" | sed -nE \
  '/^OPTIONS/,/^[A-Z]/ s/^       (-.*)/\1/p; /^EXIT STATUS/,/^[A-Z]/ s/^       ([0-9]+) .*/exit \1/p' |
  sort >"$work/page"
check "--help shows no options or no exit codes" test "$(cut -c1 "$work/usage" | uniq | xargs)" = "- e"
check "the page and --help differ (<: --help, >: the page)" diff "$work/usage" "$work/page"
check "man warns: $(cat "$work/warnings")" test ! -s "$work/warnings"

dir=$(dirname "$0")/data/completion
complete_fn=$(complete -p orvane-v2v | sed -n 's/.*-F \([^ ]*\) .*/\1/p')
while IFS=$'\t' read -r -a words; do
  want=${words[-1]//DIR/$dir} && unset 'words[-1]'
  COMP_WORDS=(orvane-v2v "${words[@]//DIR/$dir}") COMP_CWORD=${#words[@]} COMPREPLY=()
  "${complete_fn:-false}" orvane-v2v "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
  got=$( ((${#COMPREPLY[@]})) && printf '%s|' "${COMPREPLY[@]}" || echo none)
  check "orvane-v2v ${words[*]}<Tab> offers '$got', not '$want'" test "$got" = "$want"
done < <(grep -v '^#' "$(dirname "$0")/data/completion.tsv")
