#!/usr/bin/env bash
# A whole wave over SSH with the real tools: three "hosts" (an sshd of our own on
# 127.0.0.2-4, all this machine), each migrating small VMware folders. One host has a
# blocked VM (a snapshot delta), one a VM whose definition libvirt refuses after its disk
# was converted. Checks that --check only dry-runs, that a blocker stops the wave before
# any conversion, that the others then migrate and the failure is reported and rolled
# back, that a second run converts nothing, and that the collection is ansible-lint clean.
#
#   wave_test.sh SOURCE-DIR BINARY-DIR
#
# With ORVANE_DEB set to a package, the install phase installs it (and the test removes
# it again if it was not installed before); otherwise the wave runs the build tree's
# program and skips the install phase.
set -euo pipefail

src=$(realpath "$1")
bin=$(realpath "$2")
port=22122
names=(fleet-wave-derived fleet-wave-named fleet-wave-ok2 fleet-wave-snap fleet-wave-ok3
       fleet-wave-wide)

if [ "$(id -u)" -ne 0 ]; then echo "SKIP: must run as root"; exit 77; fi
for tool in ansible-playbook ansible-lint /usr/sbin/sshd qemu-img virsh unshare; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing (scripts/install-deps)"; exit 77; }
done

# The program appends to the host's application log; the wave's records must be its own.
# A private mount namespace with a tmpfs over the log directory keeps them apart, and
# the sshd started inside it hands the same view to every SSH session.
if [ -z "${FLEET_WAVE_ISOLATED:-}" ]; then
  exec env FLEET_WAVE_ISOLATED=1 unshare --mount --propagation private "$0" "$@"
fi
mkdir -p /var/log/orvane
mount -t tmpfs fleet-wave-logs /var/log/orvane

work=$(mktemp -d /var/tmp/fleet-wave-XXXXXX)
installed_by_test=
cleanup() {
  set +e
  for sock in "$work"/cp/*; do
    [ -S "$sock" ] && ssh -o ControlPath="$sock" -O exit fleet-wave >/dev/null 2>&1
  done
  [ -f "$work/sshd.pid" ] && kill "$(cat "$work/sshd.pid")"
  for n in "${names[@]}"; do virsh undefine "$n" >/dev/null 2>&1; done
  if [ -n "$installed_by_test" ]; then
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq orvane-v2v >/dev/null
  fi
  if [ -n "${FLEET_KEEP:-}" ]; then echo "kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 143' TERM INT HUP  # so that a test cut short still cleans up
# A run cut short may have left its domains behind.
for n in "${names[@]}"; do virsh undefine "$n" >/dev/null 2>&1 || true; done

fail=0
check() {  # check DESCRIPTION COMMAND...: a failed check is reported, the test goes on
  local what=$1; shift
  if ! "$@"; then echo "FAIL: $what"; fail=1; fi
}

# --- the VMware folders: tiny sparse disks and hand-written .vmx files
vmware=$work/vmware
make_vm() {  # make_vm FOLDER DISPLAY-NAME MAC [CPUS]
  local dir=$vmware/$1
  mkdir -p "$dir"
  qemu-img create -q -f vmdk "$dir/disk.vmdk" 16M
  cat >"$dir/vm.vmx" <<EOF
.encoding = "UTF-8"
config.version = "8"
virtualHW.version = "19"
displayName = "$2"
guestOS = "ubuntu-64"
numvcpus = "${4:-1}"
memsize = "256"
scsi0.virtualDev = "lsisas1068"
scsi0.present = "TRUE"
scsi0:0.fileName = "disk.vmdk"
scsi0:0.present = "TRUE"
ethernet0.present = "TRUE"
ethernet0.virtualDev = "e1000"
ethernet0.addressType = "static"
ethernet0.address = "$3"
EOF
}
make_vm fleet-wave-derived "Fleet wave derived" 00:0c:29:f1:ee:01
make_vm "fleet named vm" "Fleet named VM" 00:0c:29:f1:ee:02
make_vm fleet-wave-ok2 fleet-wave-ok2 00:0c:29:f1:ee:03
make_vm fleet-wave-snap fleet-wave-snap 00:0c:29:f1:ee:04
make_vm fleet-wave-ok3 fleet-wave-ok3 00:0c:29:f1:ee:05
# More vCPUs than the machine type allows: every check passes, `virsh define` says no.
make_vm fleet-wave-wide fleet-wave-wide 00:0c:29:f1:ee:06 9999
# Running on a snapshot: the .vmx names a delta disk on top of the base.
snap=$vmware/fleet-wave-snap
mv "$snap/disk.vmdk" "$snap/base.vmdk"
qemu-img create -q -f vmdk -b base.vmdk -F vmdk "$snap/disk.vmdk"

# --- three hosts: one sshd on three loopback addresses, keys made here
mkdir -p "$work/ssh" /run/sshd
ssh-keygen -q -t ed25519 -N "" -f "$work/ssh/host_key"
ssh-keygen -q -t ed25519 -N "" -f "$work/ssh/client_key"
cp "$work/ssh/client_key.pub" "$work/ssh/authorized_keys"
cat >"$work/ssh/sshd_config" <<EOF
ListenAddress 127.0.0.2:$port
ListenAddress 127.0.0.3:$port
ListenAddress 127.0.0.4:$port
HostKey $work/ssh/host_key
AuthorizedKeysFile $work/ssh/authorized_keys
PidFile $work/sshd.pid
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
MaxStartups 30
Subsystem sftp /usr/lib/openssh/sftp-server
EOF
if ss -Hltn "sport = :$port" | grep -q .; then echo "FAIL: port $port is taken"; exit 1; fi
/usr/sbin/sshd -f "$work/ssh/sshd_config" -E "$work/sshd.log"

# --- the inventory
out=$work/out
mkdir -p "$out"/{1,2,3}
if [ -n "${ORVANE_DEB:-}" ]; then
  dpkg-query -W -f='${Status}' orvane-v2v 2>/dev/null | grep -q 'install ok installed' ||
    installed_by_test=1
  program=orvane-v2v
  report=orvane-v2v-report
  install_args=(-e "orvane_v2v_package_deb=$(realpath "$ORVANE_DEB")")
else
  program=$bin/orvane-v2v
  report=$src/fleet/report/orvane-v2v-report
  install_args=(--skip-tags install)
fi
cat >"$work/inventory.yml" <<EOF
all:
  vars:
    ansible_user: root
    ansible_port: $port
    ansible_ssh_private_key_file: $work/ssh/client_key
    ansible_ssh_common_args: -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null
    ansible_python_interpreter: /usr/bin/python3
    ansible_remote_tmp: $work/remote-tmp
    ansible_async_dir: $work/async
    orvane_v2v_command: $program
    orvane_v2v_report_command: $report
    orvane_v2v_collect_dir: $work/collected
    orvane_v2v_derive_names: true
  hosts:
    fleet-kvm1:
      ansible_host: 127.0.0.2
      orvane_v2v_parallel: 2
      orvane_v2v_vms:
        - {path: "$vmware/fleet-wave-derived", output_dir: "$out/1"}
        - {path: "$vmware/fleet named vm", name: fleet-wave-named, output_dir: "$out/1"}
    fleet-kvm2:
      ansible_host: 127.0.0.3
      orvane_v2v_vms:
        - {path: "$vmware/fleet-wave-ok2", output_dir: "$out/2", virtio: true}
        - {path: "$vmware/fleet-wave-snap", output_dir: "$out/2"}
    fleet-kvm3:
      ansible_host: 127.0.0.4
      orvane_v2v_vms:
        - {path: "$vmware/fleet-wave-ok3", output_dir: "$out/3"}
        - {path: "$vmware/fleet-wave-wide", output_dir: "$out/3"}
EOF

export ANSIBLE_COLLECTIONS_PATH=$src/fleet
export ANSIBLE_LOCAL_TEMP=$work/local-tmp
export ANSIBLE_FORKS=3
export ANSIBLE_NOCOLOR=1
# Control masters of the test's own, closed by cleanup: nothing of the test may outlive it.
mkdir -p "$work/cp"
export ANSIBLE_SSH_ARGS="-o ControlMaster=auto -o ControlPersist=120s"
export ANSIBLE_SSH_CONTROL_PATH_DIR=$work/cp
export HOME=$work  # keeps ansible's and ssh's own state off the real home
wave() {  # wave NAME ARGS...: runs the playbook, output in $work/NAME.{out,err}, rc in $rc
  local name=$1; shift
  set +e
  ansible-playbook -i "$work/inventory.yml" orvane.v2v.wave "$@" >"$work/$name.out" \
    2>"$work/$name.err"
  rc=$?
  set -e
  echo "== wave $name: exit $rc"
}
defined() { virsh dominfo "$1" >/dev/null 2>&1; }
none_defined() {
  local n
  for n in "${names[@]}"; do if defined "$n"; then echo "  $n is defined"; return 1; fi; done
}
# The tasks that reported a change, as "task host" lines, from the playbook's output.
changed_tasks() {
  /usr/bin/python3 - "$work/$1.out" <<'PY'
import re, sys
task = ""
for line in open(sys.argv[1], encoding="utf-8", errors="replace"):
    m = re.match(r"TASK \[(?:[^\]]* : )?(.*)\] \*", line)
    if m:
        task = m.group(1)
    m = re.match(r"changed: \[([^\]]+)\]", line)
    if m:
        print(task, m.group(1))
PY
}
# The hosts that failed, from the play recap.
failed_hosts() {
  sed -n '/^PLAY RECAP/,$p' "$work/$1.out" |
    awk '$2 == ":" && ($0 ~ /failed=[1-9]/ || $0 ~ /unreachable=[1-9]/) { print $1 }' |
    sort | xargs
}

# 0. The install phase alone, by its tag: --check installs nothing, and the program
#    must be there to dry-run.
if [ -n "${ORVANE_DEB:-}" ]; then
  wave install --tags install "${install_args[@]}"
  check "the install phase installs the package (exit $rc)" \
    bash -c "[ $rc -eq 0 ] && command -v orvane-v2v-report >/dev/null"
fi

# 1. --check: every VM is dry-run, nothing else happens.
wave check --check -e orvane_v2v_skip_blocked=true "${install_args[@]}"
check "--check succeeds when blocked VMs are skipped (exit $rc)" test "$rc" -eq 0
check "--check defines no VM" none_defined
check "--check converts no disk" test -z "$(find "$out" -type f)"
check "--check changes nothing" test -z "$(changed_tasks check)"
check "--check dry-runs all six VMs" \
  test "$(grep -c ' result=dry_run' /var/log/orvane/orvane-v2v.log)" -eq 6

# 2. A blocked VM stops the whole wave before any conversion.
wave blocked "${install_args[@]}"
check "a blocked VM fails the wave (exit $rc)" test "$rc" -ne 0
check "the blocker is reported with its lines" \
  grep -q 'This VM is running on a snapshot' "$work/blocked.out"
check "every host stops, not only the blocked one" \
  test "$(failed_hosts blocked)" = "fleet-kvm1 fleet-kvm2 fleet-kvm3"
check "no VM is converted while one is blocked" none_defined

# 3. Skipping blocked VMs: the others migrate, the failing one is reported and rolled back.
wave first -e orvane_v2v_skip_blocked=true "${install_args[@]}"
check "a failed VM fails its host only (exit $rc)" test "$(failed_hosts first)" = fleet-kvm3
for n in fleet-wave-derived fleet-wave-named fleet-wave-ok2 fleet-wave-ok3; do
  check "$n is defined" defined "$n"
done
check "the blocked VM is not migrated" bash -c "! virsh dominfo fleet-wave-snap >/dev/null 2>&1"
check "the failed VM is not defined" bash -c "! virsh dominfo fleet-wave-wide >/dev/null 2>&1"
check "the failed VM's image is rolled back" test ! -e "$out/3/fleet-wave-wide.qcow2"
check "the failed VM's exit code is reported with its meaning" \
  grep -q 'fleet-wave-wide: exit 1: failed, partial output rolled back' "$work/first.out"
check "a display name with blanks gets the folder's name" test -f "$out/1/fleet-wave-derived.qcow2"
check "virtio is passed on" bash -c "virsh dumpxml fleet-wave-ok2 | grep -q \"bus='virtio'\""
for h in fleet-kvm1 fleet-kvm2 fleet-kvm3; do
  check "$h's records are collected" test -s "$work/collected/$h/orvane-v2v.log"
  check "$h's run logs are collected" test -n "$(ls "$work/collected/$h/v2v")"
done
pages=("$work"/collected/report-*.html)
check "the report page is written" test -s "${pages[0]}"
/usr/bin/python3 "$src/fleet/report/orvane-v2v-report" --json \
  fleet-kvm1="$work/collected/fleet-kvm1/orvane-v2v.log" \
  fleet-kvm2="$work/collected/fleet-kvm2/orvane-v2v.log" \
  fleet-kvm3="$work/collected/fleet-kvm3/orvane-v2v.log" >"$work/first-report.json" || true
check "the collected records add up to the wave" /usr/bin/python3 - "$work/first-report.json" <<'PY'
import json, sys
r = json.load(open(sys.argv[1]))
want = {"success": 4, "failure": 1, "dry_run": 15, "dry_run_failed": 3}
got = {k: v for k, v in r["by_result"].items() if v}
ok = got == want and r["malformed"] == 0 and r["failures_by_stage"]["vm_create"] == 1
ok = ok and sorted((v["host"], v["vm"], v["result"]) for v in r["not_succeeded"]) == [
    ("fleet-kvm2", "fleet-wave-snap", "dry_run_failed"),
    ("fleet-kvm3", "fleet-wave-wide", "failure")]
if not ok:
    print(json.dumps(r, indent=1))
sys.exit(0 if ok else 1)
PY
uuids() { for n in fleet-wave-derived fleet-wave-named fleet-wave-ok2 fleet-wave-ok3; do
  virsh domuuid "$n"; done; stat -c '%n %Y' "$out"/*/*.qcow2; }
before=$(uuids)

# 4. Again: nothing is converted, the defined VMs are unchanged, the failure still shows.
wave again -e orvane_v2v_skip_blocked=true "${install_args[@]}"
check "the second run still reports the failed VM (exit $rc)" \
  test "$(failed_hosts again)" = fleet-kvm3
changed=$(changed_tasks again | grep -v -e '^Keep this host' -e '^Fetch the run logs' \
  -e '^Make the report' || true)
check "the second run changes nothing on the hosts: $changed" test -z "$changed"
check "the defined VMs are left as they were" test "$before" = "$(uuids)"
check "defined VMs are reported as unchanged" \
  grep -q 'fleet-wave-ok3: already defined, unchanged' "$work/again.out"

# 5. The collection is clean on ansible-lint's production profile.
(cd "$src/fleet/ansible_collections/orvane/v2v" &&
  ansible-lint --offline --profile production -q >"$work/lint.out" 2>&1) ||
  { echo "FAIL: ansible-lint"; cat "$work/lint.out"; fail=1; }

if [ "$fail" -ne 0 ]; then
  for f in "$work"/*.err; do echo "--- $f"; tail -20 "$f"; done
fi
exit $fail
