#!/usr/bin/env bash
# A whole wave over SSH with the real tools: three "hosts" (an sshd of our own on
# 127.0.0.2-4) migrate data/vms; one VM runs on a snapshot (blocked), one has more vCPUs
# than libvirt allows (refused at its definition, after its disk was converted). Each
# wave's outcome must read as data/wave/<wave>. With ORVANE_DEB set to a package, the wave
# installs it (purged at the end if it was new); otherwise it runs the build tree's program.
#   wave_test.sh SOURCE-DIR BINARY-DIR
set -euo pipefail
src=$(realpath "$1") bin=$(realpath "$2") data=$(cd "$(dirname "$0")/data" && pwd)
names=(fleet-wave-{derived,named,ok2,snap,ok3,wide}) purge=
[ "$(id -u)" -eq 0 ] || { echo "SKIP: must run as root"; exit 77; }
for tool in ansible-playbook ansible-lint /usr/sbin/sshd qemu-img virsh unshare; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing (scripts/install-deps)"; exit 77; }; done
# The wave's records must be its own: a tmpfs over the log folder, in a mount namespace
# whose view the sshd started inside it hands to every SSH session.
[ -n "${FLEET_WAVE_ISOLATED:-}" ] ||
  exec env FLEET_WAVE_ISOLATED=1 unshare --mount --propagation private "$0" "$@"
mkdir -p /var/log/orvane && mount -t tmpfs fleet-wave-logs /var/log/orvane

work_root=/var/tmp source "$(dirname "$0")/../lib.sh"
undefine() { for n in "${names[@]}"; do virsh undefine "$n" >/dev/null 2>&1 || true; done; }
cleanup() {
  set +e; shopt -s nullglob
  for sock in "$work"/cp/*; do [ -S "$sock" ] && ssh -o ControlPath="$sock" -O exit x 2>/dev/null; done
  [ -f "$work/sshd.pid" ] && kill "$(cat "$work/sshd.pid")"
  undefine
  [ -z "$purge" ] || DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq orvane-v2v >/dev/null
  rm -rf "$work" /var/cache/orvane-v2v
}
trap cleanup EXIT
trap 'exit 143' TERM INT HUP  # so that a test cut short still cleans up
undefine                      # what a run cut short may have left

cp -r "$data/vms" "$work/vmware"
for vm in "$work"/vmware/*/; do qemu-img create -q -f vmdk "$vm/disk.vmdk" 16M; done
qemu-img create -q -f vmdk -b disk.vmdk -F vmdk "$work/vmware/fleet-wave-snap/disk-000001.vmdk"
mkdir -p "$work"/{ssh,cp,out/1,out/2,out/3} /run/sshd
for key in host_key client_key; do ssh-keygen -q -t ed25519 -N "" -f "$work/ssh/$key"; done
program=$bin/orvane-v2v report=$src/fleet/report/orvane-v2v-report install=(--skip-tags install)
if [ -n "${ORVANE_DEB:-}" ]; then
  dpkg-query -W -f='${Status}' orvane-v2v 2>/dev/null | grep -q 'install ok installed' || purge=1
  program=orvane-v2v report=orvane-v2v-report
  install=(-e "orvane_v2v_package_deb=$(realpath "$ORVANE_DEB")")
fi
for file in sshd_config ansible.cfg inventory.yml; do
  sed "s|@WORK@|$work|g; s|@SRC@|$src|g; s|@PROGRAM@|$program|g; s|@REPORT@|$report|g" \
    "$data/wave/$file" >"$work/$file"; done
if ss -Hltn "sport = :22122" | grep -q .; then echo "FAIL: port 22122 is taken"; exit 1; fi
/usr/sbin/sshd -f "$work/sshd_config" -E "$work/sshd.log"
export ANSIBLE_CONFIG=$work/ansible.cfg HOME=$work  # ansible's and ssh's state stay here

# What a wave did, in the form of data/wave/<wave>. Left out: the records' times, and the
# collecting on the controller, which changes something at every wave.
outcome() {
  set +e; shopt -s nullglob
  echo "exit $([ "$rc" -eq 0 ] && echo 0 || echo non-zero)"
  sed -n '/^PLAY RECAP/,$p' "$work/$1.out" |
    awk '$2 == ":" && /(failed|unreachable)=[1-9]/ { print "failed:", $1 }'
  awk '/^TASK \[/ { sub(/^TASK \[([^]]* : )?/, ""); sub(/\] \**$/, ""); task = $0 }
    /^changed: / && task !~ /^(Keep this host|Fetch the run logs|Make the report)/ {
      print "changed:", task, $2 }' "$work/$1.out" | sort -u
  grep -o '"msg": ".*"' "$work/$1.out" | sed "s|$work|WORK|g" | sort
  for n in "${names[@]}"; do virsh domblklist "$n" 2>/dev/null |
    awk -v n="$n" 'NR > 2 && NF { print "defined:", n, $1 }'; done
  (cd "$work/out" && find . -type f | sort | sed 's|^\./|image: |')
  sed -E 's/^\[[^]]*\] /record: /; s/ (duration|version)=[^ ]*//g' \
    /var/log/orvane/orvane-v2v.log | sort | uniq -c
  for h in "$work"/collected/fleet-kvm*; do
    echo "collected: ${h##*/} records of" \
      "$(sed -E 's/.* vm=(.*) result=.*/\1/' "$h/orvane-v2v.log" | sort -u | xargs)," \
      "run logs of $(ls "$h/v2v" | sed -E 's/-[0-9]{4}(-[0-9]{2}){2}_.*//' | sort -u | xargs)"; done
  echo "report pages: $(find "$work/collected" -name 'report-*.html' -size +0 2>/dev/null | wc -l)"
}
wave() {  # wave NAME ARGS...: runs the playbook and compares its outcome
  ansible-playbook -i "$work/inventory.yml" orvane.v2v.wave "${@:2}" "${install[@]}" \
    >"$work/$1.out" 2>"$work/$1.err" && rc=0 || rc=$?
  [ "$1" = install ] || check "the $1 wave's outcome" diff -u "$data/wave/$1" <(outcome "$1")
}
stamps() { for n in "${names[@]}"; do virsh domuuid "$n" 2>&1 || true; done; stat -c '%n %Y' "$work"/out/*/*; }

# The install phase alone: --check installs nothing, and the program must be there.
if [ -n "${ORVANE_DEB:-}" ]; then
  wave install --tags install
  check "the install phase installs the package (exit $rc)" \
    test "$rc" -eq 0 -a -x /usr/bin/orvane-v2v-report -a -x /usr/sbin/orvane-v2v
fi
wave check --check -e orvane_v2v_skip_blocked=true
wave blocked
wave first -e orvane_v2v_skip_blocked=true
stamps >"$work/stamps"
wave again -e orvane_v2v_skip_blocked=true
check "the second wave leaves the VMs and images as they were" diff "$work/stamps" <(stamps)
check ansible-lint \
  env -C "$src/fleet/ansible_collections/orvane/v2v" ansible-lint --offline --profile production -q
[ "$fail" -eq 0 ] || for f in "$work"/*.err; do echo "--- $f"; tail -20 "$f"; done
exit $fail
