#!/usr/bin/env bash
# The package as an administrator meets it: built (scripts/package, lintian included),
# installed with apt-get, used (--help, a dry run of data/'s sample VM, man page, a Tab, log
# retention), then purged, leaving none of its files. Needs root and a set-up host
# (scripts/host-setup); safe to run again, as an earlier install is purged first.
set -euo pipefail
cd "$(dirname "$0")/../.."
export DEBIAN_FRONTEND=noninteractive
fail() { echo "round-trip: FAILED: $*" >&2; exit 1; }
purge() { ! dpkg -s orvane-v2v >/dev/null 2>&1 || apt-get purge -y -qq orvane-v2v >/dev/null; }
[ "$(id -u)" -eq 0 ] || fail "must run as root (it installs the package)"
deb=$(bash scripts/package | tail -n1)
[ -f "$deb" ] || fail "scripts/package printed no package path (got '$deb')"
purge
work=$(mktemp -d /var/tmp/orvane-roundtrip.XXXXXX) name=orvane-roundtrip-sample
trap 'rm -rf -- "$work"; purge || true' EXIT

apt-get install -y -qq --no-install-recommends "$deb" >/dev/null
mapfile -t listed < <(dpkg -L orvane-v2v)
diff tests/packaging/data/package-files <(for p in "${listed[@]}"; do [ -d "$p" ] || echo "$p"; done |
  sort) || fail "the package's files are not those of data/package-files (<)"
[ "$(command -v orvane-v2v)" = /usr/sbin/orvane-v2v ] || fail "orvane-v2v is not /usr/sbin's on PATH"
version="orvane-v2v v$(dpkg-query -W -f='${Version}' orvane-v2v)"
[ "$(orvane-v2v --help | head -n1)" = "$version" ] || fail "--help does not begin '$version'"
# The page as man finds it, the completion where bash-completion loads it from on demand.
bash tests/packaging/man_completion_test.sh orvane-v2v "$(man -w orvane-v2v)" \
  /usr/share/bash-completion/completions/orvane-v2v || fail "the installed page or completion"

# The dry run writes its logs into a private tmpfs, not into the host's /var/log.
cp -r "tests/packaging/data/$name" "$work/" && qemu-img create -q -f vmdk "$work/$name/$name.vmdk" 64M
dry=$(unshare --mount bash -c 'mount -t tmpfs orvane-roundtrip /var/log || exit 90
  orvane-v2v -p "$1" --dry-run && ls /var/log/orvane/v2v/ && cat /var/log/orvane/orvane-v2v.log' \
  bash "$work/$name" 2>&1) || fail "the dry run failed:"$'\n'"$dry"
grep -q "^$name-.*\.log\$" <<<"$dry" || fail "the dry run left no run log:"$'\n'"$dry"
grep -q "vm=$name result=dry_run " <<<"$dry" || fail "no dry_run outcome record:"$'\n'"$dry"

logrotate -d /etc/logrotate.d/orvane-v2v >/dev/null 2>&1 || fail "logrotate rejects its file"
if command -v systemd-tmpfiles >/dev/null; then  # hosts without systemd may lack it
  systemd-tmpfiles --create --root="$work/root" /usr/lib/tmpfiles.d/orvane-v2v.conf &&
    [ -d "$work/root/var/log/orvane/v2v" ] || fail "tmpfiles rejects its file or makes no run-log folder"
fi

purge
for path in "${listed[@]}"; do  # shared folders (/usr, /etc, ...) stay
  [ -d "$path" ] && [ ! -L "$path" ] && [[ $path != *orvane* ]] && continue
  [ ! -e "$path" ] && [ ! -L "$path" ] || fail "left after the purge: $path"
done
echo "round-trip: OK: installed, used and purged; none of the ${#listed[@]} installed paths is left"
