#!/usr/bin/env bash
# Measures orvane-v2v's whole pipeline on this host, as root, and prints a Markdown
# report on standard output (progress goes to standard error). Nothing is asserted;
# it fails only when a run it needs does not succeed.
#
#  1. Wall time of a real run (-o, --yes) of a one-disk BIOS VM (a 4 GiB VMDK holding
#     1 GiB of 0xa5 bytes) against a bare `qemu-img convert -p -f vmdk -O qcow2` of
#     the same disk, strictly alternated; what each host-tool call of the run costs,
#     inside the run and replayed alone; and the program's own time between them.
#  2. Dry-run time of a two-NIC VM with 0, 50 and 200 throwaway domains defined
#     (orvane-bench-<n>), and the number of `virsh list` / `virsh dumpxml` calls in
#     one dry run, read from an strace of it.
#  3. The program's own peak resident memory (VmHWM of the orvane-v2v process, not
#     of qemu-img) while it converts 1 GiB and 8 GiB of data.
#
# Every domain and image it makes is removed on exit, after a failure or Ctrl-C too.
# Run logs and outcome records written by the program stay, as after any run.
#
# Usage: bench/pipeline_bench.sh [--binary PATH] [--pairs N] [--reps N]
#                                [--sections LIST] [--skip-large]
#   --binary PATH     the orvane-v2v to measure (default: built in <repo>/build-bench)
#   --pairs N         real-run/bare-convert pairs (default 5)
#   --reps N          dry runs per domain count, replays per tool call (default 5)
#   --sections LIST   which measurements to make, e.g. 1 or 23 (default 123)
#   --skip-large      skip the 8 GiB memory run (it needs ~18 GiB free in /var/tmp)
set -euo pipefail
export LC_ALL=C

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
binary=""
pairs=5
reps=5
sections=123
large=1
usage="usage: $0 [--binary PATH] [--pairs N] [--reps N] [--sections LIST] [--skip-large]"
while [ $# -gt 0 ]; do
  case "$1" in
    --binary) binary="$2"; shift 2 ;;
    --pairs) pairs="$2"; shift 2 ;;
    --reps) reps="$2"; shift 2 ;;
    --sections) sections="$2"; shift 2 ;;
    --skip-large) large=0; shift ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
done
wants() { [[ "$sections" == *"$1"* ]]; }

say() { echo "pipeline_bench: $*" >&2; }
die() {
  echo "pipeline_bench: FAILED: $*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || die "must run as root (the program refuses otherwise)"
for tool in qemu-img virsh virt-install strace; do
  command -v "$tool" >/dev/null 2>&1 || die "$tool is not installed (run scripts/host-setup)"
done
virsh version >/dev/null 2>&1 || die "libvirtd does not answer (run scripts/host-setup)"

if [ -z "$binary" ]; then
  say "building orvane-v2v in $repo/build-bench"
  cmake -S "$repo" -B "$repo/build-bench" -DCMAKE_BUILD_TYPE=Release -DORVANE_BENCH=OFF \
    >/dev/null
  cmake --build "$repo/build-bench" -j2 --target orvane-v2v >/dev/null
  binary="$repo/build-bench/orvane-v2v"
fi
binary="$(realpath "$binary")"
[ -x "$binary" ] || die "$binary is not an executable"

# The names this bench owns: the migrated VMs and the throwaway domains.
vm=orvane-pipeline-bench
vm_2nic=orvane-pipeline-bench-2nic
is_bench_domain() { [[ "$1" == "$vm" || "$1" =~ ^orvane-bench-[0-9]+$ ]]; }

work=""
# One virsh for the lot: 200 separate `virsh undefine` calls would take a minute.
undefine_bench_domains() {
  local name names=()
  while IFS= read -r name; do
    is_bench_domain "$name" && names+=("$name")
  done < <(virsh list --all --name 2>/dev/null)
  [ "${#names[@]}" -eq 0 ] && return 0
  printf 'undefine %s\n' "${names[@]}" | virsh >/dev/null 2>&1 || true
}
cleanup() {
  local status=$?
  undefine_bench_domains
  [ -n "$work" ] && rm -rf -- "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'say "stopped by a failing command at line $LINENO"' ERR
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# A killed earlier run may have left its domains: they would block the runs below.
undefine_bench_domains

load_at_start=$(cut -d' ' -f1-3 /proc/loadavg)
mkdir -p /var/tmp
work="$(mktemp -d /var/tmp/orvane-pipeline-bench.XXXXXX)"
out="$work/out"
mkdir -p "$out"

need_gib=3
if wants 3 && [ "$large" -eq 1 ]; then need_gib=19; fi
avail_gib=$(df --output=avail -BG "$work" | tail -n 1 | tr -dc '0-9')
say "$avail_gib GiB free under /var/tmp, $need_gib GiB needed"
[ "$avail_gib" -ge "$need_gib" ] || die "not enough space under /var/tmp (use --skip-large?)"

# --- helpers -----------------------------------------------------------------------

# Seconds between two $EPOCHREALTIME stamps, to the millisecond.
seconds_between() { awk -v s="$1" -v e="$2" 'BEGIN { printf "%.3f", e - s }'; }
add() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a + b }'; }

# The median of the numbers on standard input, one per line.
median() {
  sort -g | awk '{ v[NR] = $1 }
    END { if (NR == 0) exit 1
          if (NR % 2) printf "%.3f", v[(NR + 1) / 2]
          else printf "%.3f", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# Runs "$@" with its output in $work/last.log, sets `elapsed` to its wall time in
# seconds and `status` to its exit code. No subshell: the clock brackets the command.
elapsed=0
status=0
timed() {
  local start end
  start=$EPOCHREALTIME
  status=0
  "$@" >"$work/last.log" 2>&1 || status=$?
  end=$EPOCHREALTIME
  elapsed=$(seconds_between "$start" "$end")
}

# Like `timed`, but a non-zero exit ends the bench with the command's output.
timed_ok() {
  timed "$@"
  if [ "$status" -ne 0 ]; then
    tail -n 20 "$work/last.log" >&2
    die "exit $status from: $*"
  fi
}

# Writes a VMware folder: <dir>/<name>.vmx and <dir>/<name>.vmdk, a monolithic sparse
# VMDK of <virtual GiB> whose first <data MiB> hold 0xa5 bytes (real data that
# qemu-img must copy, not zeroes it can skip), with one e1000 NIC per MAC given.
make_vmware_folder() {
  local dir="$1" name="$2" virtual_gib="$3" data_mib="$4"
  shift 4
  mkdir -p "$dir"
  {
    printf '%s = "%s"\n' .encoding UTF-8 config.version 8 virtualHW.version 19 \
      displayName "$name" guestOS ubuntu-64 numvcpus 1 memsize 1024 \
      scsi0.virtualDev lsisas1068 scsi0.present TRUE \
      scsi0:0.fileName "$name.vmdk" scsi0:0.present TRUE
    local n=0 mac
    for mac in "$@"; do
      printf '%s = "%s"\n' "ethernet$n.connectionType" nat "ethernet$n.addressType" generated \
        "ethernet$n.virtualDev" e1000 "ethernet$n.present" TRUE \
        "ethernet$n.generatedAddress" "$mac"
      n=$((n + 1))
    done
  } >"$dir/$name.vmx"
  local raw="$work/fill.raw"
  truncate -s "${virtual_gib}G" "$raw"
  if [ "$data_mib" -gt 0 ]; then
    # The first dd ends the stream: tr is never killed by a closed pipe.
    dd if=/dev/zero bs=1M count="$data_mib" status=none | tr '\0' '\245' |
      dd of="$raw" bs=1M conv=notrunc iflag=fullblock status=none
  fi
  qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse,adapter_type=lsilogic \
    "$raw" "$dir/$name.vmdk"
  rm -f "$raw"
}

# Undoes a real run of $vm: its domain and its image. Untimed.
reset_real_run() {
  virsh undefine "$vm" >/dev/null 2>&1 || true
  rm -f "$out/$vm.qcow2"
  sync
}

real_run() { "$binary" -p "$1" -o "$out" --yes; }
bare_convert() { qemu-img convert -p -f vmdk -O qcow2 "$1" "$out/bare.qcow2"; }

report=()
line() { report+=("$*"); }

line "Host: $(nproc) CPUs, load average $load_at_start at the start; qemu-img" \
  "$(qemu-img --version | awk 'NR == 1 { print $3 }'), libvirt" \
  "$(virsh version --daemon 2>/dev/null | awk '/Running against daemon/ { print $NF }');" \
  "binary $binary."

src="$work/src-1g"
if wants 1 || wants 3; then
  say "making the 4 GiB VMDK with 1 GiB of data"
  make_vmware_folder "$src" "$vm" 4 1024 00:0c:29:4f:8e:35
fi

# --- 1. real run against the bare conversion ----------------------------------------

if wants 1; then
  disk="$src/$vm.vmdk"

  # A warm-up of each fills the page cache for both alike. perf, when it works here,
  # counts the program's own CPU time during its warm-up (-i: not its children's).
  say "warm-up"
  cpu_ms=""
  if command -v perf >/dev/null 2>&1 && perf stat -i -e task-clock -o /dev/null true 2>/dev/null
  then
    timed_ok perf stat -i "-x," -e task-clock -o "$work/perf.csv" -- "$binary" -p "$src" -o "$out" --yes
    cpu_ms=$(awk -F, '$3 == "task-clock" { printf "%.0f", $1 }' "$work/perf.csv")
  else
    timed_ok real_run "$src"
  fi
  reset_real_run
  timed_ok bare_convert "$disk"
  rm -f "$out/bare.qcow2"
  sync

  # Strict alternation: every run follows one of the other kind, so neither side
  # always inherits the other's dirty pages or a warmer cache.
  run_times=()
  bare_times=()
  diffs=()
  for ((i = 1; i <= pairs; i++)); do
    timed_ok real_run "$src"
    run_t=$elapsed
    reset_real_run
    timed_ok bare_convert "$disk"
    bare_t=$elapsed
    rm -f "$out/bare.qcow2"
    sync
    say "pair $i: program $run_t s, bare qemu-img $bare_t s"
    run_times+=("$run_t")
    bare_times+=("$bare_t")
    diffs+=("$(awk -v a="$run_t" -v b="$bare_t" 'BEGIN { printf "%.3f", a - b }')")
  done
  run_median=$(printf '%s\n' "${run_times[@]}" | median)
  bare_median=$(printf '%s\n' "${bare_times[@]}" | median)
  diff_median=$(printf '%s\n' "${diffs[@]}" | median)

  # One more run with recording wrappers first on PATH (which tools the run calls,
  # for how long, with which arguments) and the program itself under strace, parent
  # only: the time between its children is the program's own.
  say "recording the run's host-tool calls"
  shims="$work/shims"
  calls="$work/calls"
  mkdir -p "$shims" "$calls"
  for tool in virsh virt-install qemu-img; do
    cat >"$shims/$tool" <<EOF
#!/bin/bash
start=\$EPOCHREALTIME
id="\$start.\$\$"
printf '%s\0' "$tool" "\$@" >"$calls/\$id.argv"
# The define step's XML is a temporary file: keep a copy to replay the call with.
if [ "$tool" = virsh ] && [ "\${1:-}" = define ]; then cp -- "\$2" "$calls/\$id.xml"; fi
rc=0
"$(command -v "$tool")" "\$@" || rc=\$?
printf '%s %s %s %s\n' "\$start" "\$EPOCHREALTIME" "\$rc" "\$id" >>"$calls/index"
exit \$rc
EOF
    chmod +x "$shims/$tool"
  done

  timed_ok strace -ttt -T -o "$work/parent.trace" \
    env PATH="$shims:$PATH" "$binary" -p "$src" -o "$out" --yes
  virsh undefine "$vm" >/dev/null 2>&1 || true
  # The image stays until the replays are done: virt-install inspects the disk it is given.

  # Each child's window runs from the parent's clone to the return of its wait4;
  # the gaps between the windows are the program's own wall time.
  awk '
    NR == 1 { t0 = $1 }
    { dur = 0; if (match($0, /<[0-9.]+>$/)) dur = substr($0, RSTART + 1, RLENGTH - 2) }
    $2 ~ /^(clone|clone3|fork|vfork)\(/ && $NF ~ /^</ { pid = $(NF - 1); start[pid] = $1; order[++n] = pid }
    $2 ~ /^wait4\(/ { pid = $(NF - 1); finish[pid] = $1 + dur }
    /\+\+\+ exited with/ { t1 = $1 }
    END {
      prev = t0
      for (i = 1; i <= n; i++) {
        p = order[i]
        printf "%.3f\n", start[p] - prev
        prev = finish[p]
      }
      printf "%.3f\n", t1 - prev
    }' "$work/parent.trace" >"$work/gaps"
  mapfile -t gaps <"$work/gaps"
  recorded_total=$(awk 'NR == 1 { t0 = $1 } /\+\+\+ exited with/ { t1 = $1 }
    END { printf "%.3f", t1 - t0 }' "$work/parent.trace")
  own_total=0
  for g in "${gaps[@]}"; do own_total=$(add "$own_total" "$g"); done

  call_sum=0
  replay_sum=0
  qemu_inside=0
  call_rows=()
  k=0
  while read -r start end rc id; do
    mapfile -d '' argv <"$calls/$id.argv"
    inside=$(seconds_between "$start" "$end")
    before="${gaps[$k]:-?}"
    k=$((k + 1))
    shown="${argv[*]}"
    if [ "${argv[0]}" = virt-install ]; then shown="virt-install ... --print-xml"; fi
    if [ "${argv[0]}" = virsh ] && [ "${argv[1]}" = define ]; then
      argv[2]="$calls/$id.xml"
      shown="virsh define <xml>"
    fi
    if [ "${argv[0]}" = qemu-img ]; then
      qemu_inside=$inside
      call_rows+=("| \`qemu-img convert -p -f vmdk -O qcow2 ...\` | $rc | $inside | (see the pairs) | $before |")
      continue
    fi
    call_sum=$(add "$call_sum" "$inside")
    alone=()
    for ((r = 0; r < reps; r++)); do
      timed "${argv[@]}"
      alone+=("$elapsed")
      if [ "${argv[0]}" = virsh ] && [ "${argv[1]}" = define ]; then
        virsh undefine "$vm" >/dev/null 2>&1 || true
      fi
    done
    alone_median=$(printf '%s\n' "${alone[@]}" | median)
    replay_sum=$(add "$replay_sum" "$alone_median")
    call_rows+=("| \`$shown\` | $rc | $inside | $alone_median | $before |")
  done < <(sort -g "$calls/index")
  reset_real_run

  target=$(add "$replay_sum" 0.1)
  verdict=$(awk -v o="$diff_median" -v t="$target" 'BEGIN { print (o <= t ? "within" : "over") }')
  recorded_overhead=$(awk -v t="$recorded_total" -v q="$qemu_inside" 'BEGIN { printf "%.3f", t - q }')

  line ""
  line "### Real run against the bare conversion (1 GiB of data in a 4 GiB VMDK)"
  line ""
  line "| pair | orvane-v2v -o --yes (s) | bare qemu-img convert (s) | difference (s) |"
  line "|---|---|---|---|"
  for ((i = 0; i < pairs; i++)); do
    line "| $((i + 1)) | ${run_times[$i]} | ${bare_times[$i]} | ${diffs[$i]} |"
  done
  line "| **median** | **$run_median** | **$bare_median** | **$diff_median** |"
  line ""
  line "Overhead beyond the bare conversion: median of the pair differences $diff_median s"
  line "(difference of the medians $(awk -v a="$run_median" -v b="$bare_median" 'BEGIN { printf "%.3f", a - b }') s). Target: the other host-tool calls replayed"
  line "alone ($replay_sum s) + 0.1 s = $target s: **$verdict** the target."
  line ""
  line "### Where one real run spends its time"
  line ""
  line "| call | exit | inside the run (s) | alone, median of $reps (s) | program's own time before it (s) |"
  line "|---|---|---|---|---|"
  for row in "${call_rows[@]}"; do line "$row"; done
  line "| (exit) | | | | ${gaps[$k]:-?} |"
  line ""
  line "That run, traced, took $recorded_total s: $qemu_inside s in qemu-img, $call_sum s in the other"
  line "calls (each through a recording wrapper), and $own_total s in the program itself between"
  line "its children; its overhead beyond its own qemu-img call was $recorded_overhead s."
  if [ -n "$cpu_ms" ]; then
    line "\`perf stat -i\` on the warm-up run: the orvane-v2v process itself used $cpu_ms ms of CPU"
    line "(its children excluded)."
  fi
  line "Load average after this section: $(cut -d' ' -f1-3 /proc/loadavg)."
fi

# --- 2. dry run against the number of defined domains ------------------------------

if wants 2; then
  say "dry runs with many domains defined"
  src2="$work/src-2nic"
  make_vmware_folder "$src2" "$vm_2nic" 1 0 00:0c:29:4f:8e:35 00:0c:29:4f:8e:3f
  dry_run() { "$binary" -p "$src2" -o "$out" --dry-run; }

  xmls="$work/domains"
  mkdir -p "$xmls"
  for ((n = 1; n <= 200; n++)); do
    printf "<domain type='qemu'><name>orvane-bench-%d</name><memory unit='KiB'>65536</memory><os><type arch='x86_64'>hvm</type></os><devices><interface type='network'><mac address='52:54:00:be:%02x:%02x'/><source network='default'/></interface></devices></domain>\n" \
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
  line "| throwaway domains | domains listed | dry run, median of $reps (s) | runs (s) |"
  line "|---|---|---|---|"
  defined=0
  dry_medians=()
  for count in 0 50 200; do
    if [ "$count" -gt "$defined" ]; then
      define_range $((defined + 1)) "$count"
      defined=$count
    fi
    listed=$(virsh list --all --name | grep -c . || true)
    times=()
    for ((r = 0; r < reps; r++)); do
      timed_ok dry_run
      times+=("$elapsed")
    done
    m=$(printf '%s\n' "${times[@]}" | median)
    dry_medians+=("$m")
    say "$count throwaway domains ($listed listed): dry run $m s"
    line "| $count | $listed | $m | ${times[*]} |"
  done

  # One dry run under strace, one output file per process: count the virsh calls.
  traces="$work/strace"
  mkdir -p "$traces"
  strace -f -ff -qq -e trace=execve -e signal=none -o "$traces/t" \
    "$binary" -p "$src2" -o "$out" --dry-run >/dev/null 2>&1 || die "the traced dry run failed"
  # execvp tries each PATH entry: only the call that succeeded started virsh.
  cat "$traces"/t.* | grep -E '^execve\(".*", \["virsh", ' | grep -E ' = 0$' \
    >"$work/virsh_calls" || true
  list_calls=$(grep -c '"virsh", "list"' "$work/virsh_calls" || true)
  dump_calls=$(grep -c '"virsh", "dumpxml"' "$work/virsh_calls" || true)
  dump_names=$(grep -o '"virsh", "dumpxml", "[^"]*"' "$work/virsh_calls" | sort | uniq -c || true)
  dump_distinct=$(printf '%s\n' "$dump_names" | grep -c . || true)
  dump_max=$(printf '%s\n' "$dump_names" | awk '{ if ($1 > m) m = $1 } END { print m + 0 }')
  other_calls=$(grep -vc '"virsh", "\(list\|dumpxml\)"' "$work/virsh_calls" || true)
  per_domain=$(awk -v a="${dry_medians[0]}" -v b="${dry_medians[2]}" \
    'BEGIN { printf "%.3f", (b - a) / 200 }')
  listed=$(virsh list --all --name | grep -c . || true)
  line ""
  line "Each extra domain adds ~$per_domain s to a dry run (one \`virsh dumpxml\` process). With"
  line "$listed domains defined, one traced dry run of the two-NIC VM started \`virsh list\`"
  line "$list_calls time(s), \`virsh dumpxml\` $dump_calls times for $dump_distinct distinct domains (at most"
  line "$dump_max per domain), and $other_calls other virsh commands."
  undefine_bench_domains
fi

# --- 3. the program's peak memory while it converts ---------------------------------

# Polls the program's VmHWM (its own high-water mark; qemu-img is a separate process)
# every 20 ms until it exits, and prints the highest value seen, in KiB.
peak_rss_kib() {
  local peak=0 key value rest pid
  "$binary" -p "$1" -o "$out" --yes >"$work/last.log" 2>&1 &
  pid=$!
  while [ -e "/proc/$pid/status" ]; do
    value=""
    while read -r key value rest; do
      [ "$key" = "VmHWM:" ] && break
      value=""
    done 2>/dev/null <"/proc/$pid/status" || true
    # A zombie has no VmHWM left: the program has finished.
    [ -n "$value" ] || break
    if [ "$value" -gt "$peak" ]; then peak=$value; fi
    sleep 0.02
  done
  local rc=0
  wait "$pid" || rc=$?
  if [ "$rc" -ne 0 ]; then
    tail -n 20 "$work/last.log" >&2
    die "the memory run failed with exit $rc"
  fi
  echo "$peak"
}
mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }

if wants 3; then
  line ""
  line "### Peak resident memory of orvane-v2v during a real run"
  line ""
  line "| data converted | VmHWM of orvane-v2v (KiB) | MiB |"
  line "|---|---|---|"
  say "peak memory, 1 GiB"
  peak=$(peak_rss_kib "$src")
  reset_real_run
  line "| 1 GiB (4 GiB VMDK) | $peak | $(mib "$peak") |"
fi
rm -rf -- "$src"
if wants 3 && [ "$large" -eq 1 ]; then
  say "making the 16 GiB VMDK with 8 GiB of data"
  src8="$work/src-8g"
  make_vmware_folder "$src8" "$vm" 16 8192 00:0c:29:4f:8e:35
  say "peak memory, 8 GiB"
  peak=$(peak_rss_kib "$src8")
  reset_real_run
  line "| 8 GiB (16 GiB VMDK) | $peak | $(mib "$peak") |"
  rm -rf -- "$src8"
fi

printf '%s\n' "${report[@]}"
