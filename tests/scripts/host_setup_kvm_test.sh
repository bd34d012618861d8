#!/usr/bin/env bash
# scripts/host-setup --kvm-only with a fake qemu first on PATH: each kind of host is told
# apart, said in one line and recorded, and a guest that hangs is given up on within the
# bound, even when it ignores SIGTERM.    host_setup_kvm_test.sh HOST-SETUP
set -uo pipefail
setup=$(realpath "$1")
work=$(mktemp -d /tmp/orvane-kvm-XXXXXX)
trap 'rm -rf "$work"' EXIT
tcg="; guests and the libguestfs appliance run under TCG emulation"
fail=0
check() { "${@:2}" || { echo "FAIL: $finding ($body): $1"; fail=1; }; }
# finding | the fake qemu's body, none for no /dev/kvm | what host-setup says after "KVM: "
while IFS='|' read -r finding body said; do
  dir=$(mktemp -d "$work/case-XXXX") && mkdir "$dir/bin"
  if [ "$body" != none ]; then
    touch "$dir/kvm"
    printf '#!/bin/bash\necho $$ >%s/pid; echo "$*" >%s/args\n%s\n' "$dir" "$dir" "$body" \
      >"$dir/bin/qemu-system-x86_64"
    chmod +x "$dir/bin/qemu-system-x86_64"
  fi
  start=$SECONDS
  said_now=$(PATH=$dir/bin:$PATH ORVANE_KVM_DEVICE=$dir/kvm ORVANE_KVM_STATE=$dir/state/kvm \
    ORVANE_KVM_SECONDS=2 bash "$setup" --kvm-only 2>&1)
  got="exit $?, recorded $(cat "$dir/state/kvm"), said: $said_now"
  check "$got" test "$got" = "exit 0, recorded $finding, said: host-setup: KVM: ${said//DEV/$dir/kvm}"
  # The bound, the grace before SIGKILL, and room for a loaded machine.
  check "took $((SECONDS - start)) s" test $((SECONDS - start)) -lt 12
  [ "$body" = none ] || check "qemu ran without KVM" grep -q '^-accel kvm ' "$dir/args"
  # Killed is enough: a zombie handed to init may wait a moment for its reaping.
  [ ! -s "$dir/pid" ] || check "the fake qemu outlived host-setup" \
    test -z "$(ps -o stat= -p "$(cat "$dir/pid")" | grep -v '^Z')"
done <<EOF
absent|none|no DEV$tcg
works|echo 'SeaBIOS (version 1.16.2-debian-1.16.2-1)'; echo 'No bootable device.'|DEV works
no-guest|echo 'qemu-system-x86_64: -accel kvm: failed to initialize kvm: Permission denied' >&2; exit 1|DEV present but runs no guest (qemu failed: qemu-system-x86_64: -accel kvm: failed to initialize kvm: Permission denied)$tcg
no-guest|trap '' TERM; echo 'SeaBIOS (version'; exec sleep 600|DEV present but runs no guest (a test guest did not finish within 2 s)$tcg
no-guest|echo 'SeaBIOS (version 1.16.2)'; exit 0|DEV present but runs no guest (a test guest ended without its firmware's output)$tcg
EOF
exit $fail
