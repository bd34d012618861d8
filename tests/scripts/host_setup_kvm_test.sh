#!/usr/bin/env bash
# scripts/host-setup --kvm-only with a fake qemu first on PATH: each kind of host is told
# apart, said in one line and recorded, and a guest that hangs is given up on within the
# bound, even when it ignores SIGTERM.    host_setup_kvm_test.sh HOST-SETUP
set -uo pipefail
source "$(dirname "$0")/../lib.sh"
tcg="; guests and the libguestfs appliance run under TCG emulation"
# The fake qemu notes its pid and arguments in the row's folder, then does as the row says.
mkdir "$work/bin" && printf '#!/bin/bash\necho $$ >"$ROW/pid"; echo "$*" >"$ROW/args"; eval "$BODY"\n' \
  >"$work/bin/qemu-system-x86_64" && chmod +x "$work/bin/qemu-system-x86_64"
# finding | the fake qemu's body, none for no /dev/kvm | what host-setup says after "KVM: "
while IFS='|' read -r finding body said; do
  row=$(mktemp -d "$work/row-XXXX") start=$SECONDS
  [ "$body" = none ] || touch "$row/kvm"
  said_now=$(PATH=$work/bin:$PATH ROW=$row BODY=$body ORVANE_KVM_DEVICE=$row/kvm \
    ORVANE_KVM_STATE=$row/state/kvm ORVANE_KVM_SECONDS=2 bash "$1" --kvm-only 2>&1)
  got="exit $?, recorded $(cat "$row/state/kvm"), said: $said_now"
  # The bound, the grace before SIGKILL, and room for a loaded machine.
  ((SECONDS - start < 12)) || got+=", took $((SECONDS - start)) s"
  [ "$body" = none ] || grep -q '^-accel kvm ' "$row/args" || got+=", qemu ran without KVM"
  # Killed is enough: a zombie handed to init may wait a moment for its reaping.
  [ ! -s "$row/pid" ] || [ -z "$(ps -o stat= -p "$(cat "$row/pid")" | grep -v '^Z')" ] ||
    got+=", the fake qemu outlived host-setup"
  check "$got" test "$got" = "exit 0, recorded $finding, said: host-setup: KVM: ${said//DEV/$row/kvm}"
done <<EOF
absent|none|no DEV$tcg
works|echo '[    1.72] Kernel panic - not syncing: VFS: Unable to mount root fs on unknown-block(0,0)'|DEV works
no-guest|echo 'qemu-system-x86_64: -accel kvm: failed to initialize kvm: Permission denied' >&2; exit 1|DEV present but runs no guest (qemu failed: qemu-system-x86_64: -accel kvm: failed to initialize kvm: Permission denied)$tcg
no-guest|trap '' TERM; echo 'SeaBIOS (version 1.16.2)'; exec sleep 600|DEV present but runs no guest (a test guest did not finish within 2 s)$tcg
no-guest|echo 'SeaBIOS (version 1.16.2)'; echo 'No bootable device.'; exit 0|DEV present but runs no guest (a test guest ended without its kernel's output)$tcg
EOF
