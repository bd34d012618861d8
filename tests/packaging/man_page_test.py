#!/usr/bin/env python3
"""The manual page agrees with the program: the same options, each with the same
value placeholder, and the same exit codes as the usage text that `--help` prints;
and man renders the page without a warning.

    man_page_test.py <orvane-v2v binary> <orvane-v2v.8>
"""
import os
import re
import subprocess
import sys

# "  -o, --output-dir DIR     Directory..." or "  --virtio                 Use..."
USAGE_OPTION = re.compile(r"^  ((?:-\w, )?--[\w-]+(?: [A-Z]+)?)  ")
USAGE_EXIT = re.compile(r"^  (\d+)  ")


def usage_facts(binary: str) -> tuple[set[str], set[str]]:
    run = subprocess.run([binary, "--help"], capture_output=True, text=True, check=True)
    options: set[str] = set()
    codes: set[str] = set()
    in_exit_codes = False
    for line in run.stdout.splitlines():
        if line == "Exit codes:":
            in_exit_codes = True
        elif in_exit_codes and (match := USAGE_EXIT.match(line)):
            codes.add(match.group(1))
        elif match := USAGE_OPTION.match(line):
            options.add(match.group(1).lower())
    return options, codes


def roff_text(line: str) -> str:
    """The text of one font-macro line (.B, .BR, .I, ...): its arguments joined as
    roff joins them, with font changes dropped and \\- read as a dash."""
    args = re.findall(r'"([^"]*)"|(\S+)', line.split(None, 1)[1] if " " in line else "")
    text = "".join(quoted or bare for quoted, bare in args)
    text = re.sub(r"\\f[BIRP]", "", text)
    return text.replace("\\-", "-").strip()


def man_sections(path: str) -> dict[str, list[str]]:
    """Each section's tags: the line after every .TP, as text."""
    sections: dict[str, list[str]] = {}
    current = ""
    lines = open(path, encoding="utf-8").read().splitlines()
    for i, line in enumerate(lines):
        if line.startswith(".SH "):
            current = line[4:].strip('"')
            sections[current] = []
        elif line == ".TP" and i + 1 < len(lines):
            sections[current].append(roff_text(lines[i + 1]))
    return sections


def main() -> int:
    binary, page = sys.argv[1], sys.argv[2]
    failures: list[str] = []

    usage_options, usage_codes = usage_facts(binary)
    sections = man_sections(page)
    man_options = {tag.lower() for tag in sections.get("OPTIONS", [])}
    # "128+n" stands for the signals; only plain numbers are in the usage text.
    man_codes = {tag for tag in sections.get("EXIT STATUS", []) if tag.isdigit()}

    if not usage_options or not usage_codes:
        failures.append("found no options or no exit codes in the --help output")
    for name, only_in in (("usage text", usage_options - man_options),
                          ("manual page", man_options - usage_options)):
        for option in sorted(only_in):
            failures.append(f"option '{option}' is only in the {name}")
    for name, only_in in (("usage text", usage_codes - man_codes),
                          ("manual page", man_codes - usage_codes)):
        for code in sorted(only_in):
            failures.append(f"exit code {code} is only in the {name}")

    env = dict(os.environ, MANWIDTH="80", LC_ALL="C.UTF-8")
    render = subprocess.run(["man", "--warnings", "-l", page], capture_output=True,
                            text=True, env=env)
    if render.returncode != 0 or render.stderr or "EXIT STATUS" not in render.stdout:
        failures.append(f"man --warnings -l: exit {render.returncode}\n{render.stderr}")

    for failure in failures:
        print("FAIL:", failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
