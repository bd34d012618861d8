#!/usr/bin/env bash
# Measures what a UEFI migration and the MAC check cost on this host, as root, and
# prints a Markdown report on standard output (progress goes to standard error).
# Nothing is asserted; it fails only when a run it needs does not succeed.
#
#  1. A real run (--yes) of a one-disk UEFI VM (ESP with shim + GRUB, ext4 root with
#     data), split into the disk conversion and the boot fix (the guestfish process's
#     lifetime, recorded by a wrapper first on PATH), against one bare appliance launch
#     (`guestfish -a /dev/null run`), strictly alternated; and the same VM's dry run,
#     which predicts the boot fix on the source disk in one read-only launch.
#  2. Dry-run time of a two-NIC BIOS VM with 0, 50 and 200 throwaway domains defined
#     (orvane-boot-bench-<n>), and the number of virsh processes one dry run starts.
#
# Every domain and file it makes is removed on exit, after a failure or Ctrl-C too.
#
# Usage: bench/boot_fix_bench.sh [--binary PATH] [--pairs N] [--reps N] [--sections LIST]
set -euo pipefail
export LC_ALL=C

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
binary=""
pairs=3
reps=5
sections=12
usage="usage: $0 [--binary PATH] [--pairs N] [--reps N] [--sections LIST]"
while [ $# -gt 0 ]; do
  case "$1" in
    --binary) binary="$2"; shift 2 ;;
    --pairs) pairs="$2"; shift 2 ;;
    --reps) reps="$2"; shift 2 ;;
    --sections) sections="$2"; shift 2 ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
done
wants() { [[ "$sections" == *"$1"* ]]; }
say() { echo "boot_fix_bench: $*" >&2; }
die() {
  echo "boot_fix_bench: FAILED: $*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || die "must run as root (the program refuses otherwise)"
for tool in qemu-img virsh virt-install guestfish strace; do
  command -v "$tool" >/dev/null 2>&1 || die "$tool is not installed (run scripts/host-setup)"
done
if [ -z "$binary" ]; then
  say "building orvane-v2v in $repo/build-bench"
  cmake -S "$repo" -B "$repo/build-bench" -DCMAKE_BUILD_TYPE=Release -DORVANE_BENCH=OFF \
    >/dev/null
  cmake --build "$repo/build-bench" -j2 --target orvane-v2v >/dev/null
  binary="$repo/build-bench/orvane-v2v"
fi
binary="$(realpath "$binary")"

vm=orvane-boot-bench-uefi
is_bench_domain() { [[ "$1" == "$vm" || "$1" =~ ^orvane-boot-bench-[0-9]+$ ]]; }
work=""
undefine_bench_domains() {
  local name names=()
  while IFS= read -r name; do
    is_bench_domain "$name" && names+=("$name")
  done < <(virsh list --all --name 2>/dev/null)
  [ "${#names[@]}" -eq 0 ] && return 0
  printf 'undefine %s --nvram\n' "${names[@]}" | virsh >/dev/null 2>&1 || true
}
cleanup() {
  local status=$?
  undefine_bench_domains
  [ -n "$work" ] && rm -rf -- "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP
undefine_bench_domains

load_at_start=$(cut -d' ' -f1-3 /proc/loadavg)
mkdir -p /var/tmp
work="$(mktemp -d /var/tmp/orvane-boot-bench.XXXXXX)"
out="$work/out"
mkdir -p "$out"

seconds_between() { awk -v s="$1" -v e="$2" 'BEGIN { printf "%.3f", e - s }'; }
median() {
  sort -g | awk '{ v[NR] = $1 }
    END { if (NR == 0) exit 1
          if (NR % 2) printf "%.3f", v[(NR + 1) / 2]
          else printf "%.3f", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
elapsed=0
timed_ok() {
  local start end status=0
  start=$EPOCHREALTIME
  "$@" >"$work/last.log" 2>&1 || status=$?
  end=$EPOCHREALTIME
  elapsed=$(seconds_between "$start" "$end")
  [ "$status" -eq 0 ] || { cat "$work/last.log" >&2; die "$* exited with $status"; }
}

report=()
line() { report+=("$*"); }
line "Host: $(nproc) CPUs ($(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)," \
  "$( [ -e /dev/kvm ] && echo KVM || echo "no KVM: guestfish under TCG")), load average" \
  "$load_at_start at the start; $(guestfish --version), libvirt" \
  "$(virsh version --daemon 2>/dev/null | awk '/Running against daemon/ { print $NF }')." \
  "Date: $(date -u '+%Y-%m-%d %H:%M UTC')."

vmx() {
  local dir="$1" name="$2" firmware="$3"
  shift 3
  {
    printf '%s = "%s"\n' .encoding UTF-8 config.version 8 virtualHW.version 19 \
      displayName "$name" guestOS debian12-64 numvcpus 1 memsize 1024 firmware "$firmware" \
      sata0.present TRUE sata0:0.fileName "$name.vmdk" sata0:0.present TRUE
    local n=0 mac
    for mac in "$@"; do
      printf '%s = "%s"\n' "ethernet$n.addressType" generated "ethernet$n.virtualDev" e1000 \
        "ethernet$n.present" TRUE "ethernet$n.generatedAddress" "$mac"
      n=$((n + 1))
    done
  } >"$dir/$name.vmx"
}

if wants 1; then
  say "building a UEFI guest disk (one appliance launch)"
  src="$work/src-uefi"
  mkdir -p "$src"
  vmx "$src" "$vm" efi 00:0c:29:b0:07:01
  head -c 1M /dev/urandom >"$work/shimx64.efi"
  head -c 2M /dev/urandom >"$work/grubx64.efi"
  truncate -s 2G "$work/disk.raw"
  guestfish --format=raw -a "$work/disk.raw" <<EOF >/dev/null
run
part-init /dev/sda gpt
part-add /dev/sda p 2048 526335
part-add /dev/sda p 526336 -2048
part-set-gpt-type /dev/sda 1 C12A7328-F81F-11D2-BA4B-00A0C93EC93B
mkfs vfat /dev/sda1
mkfs ext4 /dev/sda2
mount /dev/sda1 /
mkdir-p /EFI/debian
upload $work/shimx64.efi /EFI/debian/shimx64.efi
upload $work/grubx64.efi /EFI/debian/grubx64.efi
umount /
mount /dev/sda2 /
fill 165 200M /data
EOF
  qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse "$work/disk.raw" "$src/$vm.vmdk"
  rm -f "$work/disk.raw"

  # A guestfish first on PATH that records each process's start and end.
  wrap="$work/wrap"
  mkdir -p "$wrap"
  real_guestfish="$(command -v guestfish)"
  cat >"$wrap/guestfish" <<EOF
#!/usr/bin/env bash
start=\$EPOCHREALTIME
"$real_guestfish" "\$@"
status=\$?
echo "\$start \$EPOCHREALTIME" >>"$work/guestfish.times"
exit \$status
EOF
  chmod +x "$wrap/guestfish"
  launch_seconds() { awk '{ s += $2 - $1 } END { printf "%.3f", s }' "$work/guestfish.times"; }

  line ""
  line "### UEFI migration: conversion and boot fix against one bare appliance launch"
  line ""
  line "| pair | bare launch (s) | whole run (s) | boot fix (s) | guestfish processes | rest of the run (s) | boot fix / bare launch |"
  line "|---|---|---|---|---|---|---|"
  bares=()
  fixes=()
  runs=()
  for ((p = 1; p <= pairs; p++)); do
    timed_ok guestfish -a /dev/null run
    bare=$elapsed
    rm -f "$work/guestfish.times" "$out/$vm.qcow2"
    virsh undefine "$vm" --nvram >/dev/null 2>&1 || true
    timed_ok env PATH="$wrap:$PATH" "$binary" -p "$src" -o "$out" --yes
    run=$elapsed
    fix=$(launch_seconds)
    count=$(grep -c . "$work/guestfish.times")
    rest=$(awk -v a="$run" -v b="$fix" 'BEGIN { printf "%.3f", a - b }')
    ratio=$(awk -v a="$fix" -v b="$bare" 'BEGIN { printf "%.2f", a / b }')
    say "pair $p: bare launch $bare s, run $run s, boot fix $fix s ($count guestfish)"
    line "| $p | $bare | $run | $fix | $count | $rest | $ratio |"
    bares+=("$bare")
    fixes+=("$fix")
    runs+=("$run")
  done
  mb=$(printf '%s\n' "${bares[@]}" | median)
  mf=$(printf '%s\n' "${fixes[@]}" | median)
  mr=$(printf '%s\n' "${runs[@]}" | median)
  line ""
  line "Medians: bare launch $mb s, boot fix $mf s" \
    "($(awk -v a="$mf" -v b="$mb" 'BEGIN { printf "%.2f", a / b }') times the bare launch)," \
    "whole run $mr s."
  grep -h 'UEFI:' "$work/last.log" | sed 's/^\[[^]]*\] /Note of the last run: /' |
    while IFS= read -r l; do line "$l"; done
  virsh undefine "$vm" --nvram >/dev/null 2>&1 || true
  rm -f "$out/$vm.qcow2"

  rm -f "$work/guestfish.times"
  timed_ok env PATH="$wrap:$PATH" "$binary" -p "$src" -o "$out" --dry-run
  line "The dry run of the same VM took $elapsed s, of which $(launch_seconds) s in" \
    "$(grep -c . "$work/guestfish.times") read-only guestfish on the source VMDK; it said:" \
    "\`$(grep -h 'From the source disks' "$work/last.log" | sed 's/^ *//')\`"
fi

if wants 2; then
  say "dry runs with many domains defined"
  src2="$work/src-2nic"
  mkdir -p "$src2"
  vmx "$src2" orvane-boot-bench-2nic bios 00:0c:29:b0:07:35 00:0c:29:b0:07:3f
  qemu-img create -f vmdk "$src2/orvane-boot-bench-2nic.vmdk" 1G >/dev/null
  xmls="$work/domains"
  mkdir -p "$xmls"
  for ((n = 1; n <= 200; n++)); do
    printf "<domain type='qemu'><name>orvane-boot-bench-%d</name><memory unit='KiB'>65536</memory><os><type arch='x86_64'>hvm</type></os><devices><interface type='network'><mac address='52:54:00:b0:%02x:%02x'/><source network='default'/></interface></devices></domain>\n" \
      "$n" $((n / 256)) $((n % 256)) >"$xmls/$n.xml"
  done
  define_range() {
    local n files=()
    for ((n = $1; n <= $2; n++)); do files+=("$xmls/$n.xml"); done
    printf 'define %s\n' "${files[@]}" | virsh >/dev/null 2>&1 || die "virsh define failed"
  }
  line ""
  line "### Dry run of a two-NIC VM against the domains defined on the host"
  line ""
  line "| throwaway domains | domains listed | dry run, median of $reps (s) | virsh processes in one dry run | runs (s) |"
  line "|---|---|---|---|---|"
  defined=0
  for count in 0 50 200; do
    if [ "$count" -gt "$defined" ]; then
      define_range $((defined + 1)) "$count"
      defined=$count
    fi
    listed=$(virsh list --all --name | grep -c . || true)
    times=()
    for ((r = 0; r < reps; r++)); do
      timed_ok "$binary" -p "$src2" -o "$out" --dry-run
      times+=("$elapsed")
    done
    m=$(printf '%s\n' "${times[@]}" | median)
    traces="$work/strace-$count"
    mkdir -p "$traces"
    strace -f -ff -qq -e trace=execve -e signal=none -o "$traces/t" \
      "$binary" -p "$src2" -o "$out" --dry-run >/dev/null 2>&1 || die "the traced dry run failed"
    virsh_calls=$(cat "$traces"/t.* | grep -E '^execve\(".*", \["virsh", ' | grep -cE ' = 0$' || true)
    say "$count throwaway domains ($listed listed): dry run $m s, $virsh_calls virsh"
    line "| $count | $listed | $m | $virsh_calls | ${times[*]} |"
  done
  undefine_bench_domains
fi

printf '%s\n' "${report[@]}"
