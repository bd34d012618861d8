#!/usr/bin/env bash
# Runs one row of the real-host scenario table (scenarios.tsv) against the real tools:
#   run-scenario.sh TABLE ID PROGRAM
# Whatever the row says, a run must leave the source folder as it was (content and times),
# leave no libvirt pool for its directories and run no shell on the names it was given.
# What a row makes carries "e2e-" and this process's id, and goes however the row ends.
set -uo pipefail
shopt -u patsub_replacement 2>/dev/null # a "&" in a hostile name stays a "&"
table=$(readlink -f "$1") id=$2 prog=$(readlink -f "$3")
here=$(dirname "$(readlink -f "$0")")

# The program logs to /var/log/orvane: a private tmpfs there keeps the host's logs
# out of the test and lets the log drills break the directory.
if [ -z "${E2E_PRIVATE:-}" ]; then
  exec unshare -m --propagation private env E2E_PRIVATE=1 bash "$0" "$table" "$id" "$prog"
fi
mkdir -p /var/log/orvane && mount -t tmpfs -o size=64m tmpfs /var/log/orvane || exit 1
# libguestfs would pick a /dev/kvm that runs no guest, and its appliance never answers.
kvm=$(cat /run/orvane-v2v/kvm 2>/dev/null)
[ "$kvm" = works ] || export LIBGUESTFS_BACKEND_SETTINGS=force_tcg
export MTOOLS_SKIP_CHECK=1

IFS=$'\t' read -r -a row < <(grep -P "^\Q$id\E\t" "$table")
[ "${#row[@]}" -ge 5 ] || { echo "no row $id in $table"; exit 1; }
work=$(mktemp -d /var/tmp/e2e-"$id".XXXXXX) && chmod 755 "$work"
vm=e2e-$id-$$
mac=$(printf '%02x:%02x' $(($$ >> 8 & 255)) $(($$ & 255)))
path_of() { virsh pool-dumpxml "$1" 2>/dev/null | sed -n 's:.*<path>\(.*\)</path>.*:\1:p'; }
pool=$(path_of default)
name=e2e-src out=$work/$vm-out src='' disks=() vms=("$vm") failed=0
mkdir -p "$out" "$work/cwd" && cd "$work/cwd" || exit 1

fail() { echo "FAIL [$id]: $*"; failed=1; }
pools_under() { # NAME PATH of every pool whose directory lies under $work
  virsh pool-list --all --name | while read -r p; do
    [ -n "$p" ] && path=$(path_of "$p") && case $path in "$work"*) echo "$p $path" ;; esac
  done
}

cleanup() {
  # By UUID: a name such as "1", "-d" or a UUID would make virsh look up another domain.
  virsh list --all --uuid --name | while read -r uuid n; do
    printf '%s\n' "${vms[@]}" | grep -qxF -- "$n" && { virsh undefine "$uuid" --nvram || virsh undefine "$uuid"; } >/dev/null 2>&1
  done
  pools_under | while read -r p _; do virsh pool-destroy "$p"; virsh pool-undefine "$p"; done >/dev/null 2>&1
  # Its VMs' images in the pool, and the pool refreshed if one was there.
  for v in "${vms[@]}"; do [[ $v == e2e-* ]] && rm -fv "$pool/$v".qcow2 "$pool/$v"-*.qcow2; done |
    grep -q . && virsh pool-refresh default >/dev/null
  cd / && umount -R "$out" 2>/dev/null; rm -rf "$work"
}
trap cleanup EXIT

subst() { # the text with the row's placeholders filled in
  local s=$1 i
  s=${s//'$VM'/$vm} s=${s//'$OUT'/$out} s=${s//'$SRC'/$src} s=${s//'$POOL'/$pool}
  s=${s//'$WORK'/$work} s=${s//'$MAC'/$mac}
  for i in "${!disks[@]}"; do s=${s//"\$D$i"/${disks[$i]}}; done
  printf '%s' "$s"
}

# Data at the start, in the middle, across VMware's 2 GiB extent boundary, at the end.
pattern_ops() { ops=(); for p in '0xa1 0 64k' '0xb2 1M 4k' '0xc3 2047M 2M' '0xd4 3068M 4k'; do ops+=(-c "$1 -P $p"); done; }

make_folder() { # TEMPLATE|name=..|dir=..|vmx=..|outdir=..|disk=KEY,FILE,SUBFORMAT,SIZE,CONTENT|...
  local IFS='|' parts dir='' vmx='' outdir='' i=0 text p key file sub size content raw=$work/raw
  read -r -a parts <<<"$1"
  IFS=$' \t\n'
  for p in "${parts[@]:1}"; do
    case $p in name=* | dir=* | vmx=* | outdir=*) printf -v "${p%%=*}" %s "${p#*=}" ;; esac
  done
  [ -z "$outdir" ] || { out=$work/$outdir && mkdir "$out"; }
  src=$work/src/${dir:-$name}
  mkdir -p "$src"
  text=$(<"$here/vmx/${parts[0]}.vmx")
  text=${text//@NAME@/$name} text=${text//@MAC@/$mac}
  for p in "${parts[@]:1}"; do
    [[ $p == disk=* ]] || continue
    IFS=, read -r key file sub size content <<<"${p#disk=}"
    local opts=subformat=$sub,adapter_type=ide
    [ -n "$file" ] || { file=$name.vmdk; [ $i = 0 ] || file=${name}_$i.vmdk; }
    [[ $key == scsi* ]] && opts=subformat=$sub,adapter_type=lsilogic
    text+=$'\n'"$key.fileName = \"$file\""$'\n'"$key.present = \"TRUE\""
    case $content in
    blank) truncate -s "$size" "$raw" ;;
    random) head -c "$size" /dev/urandom >"$raw" ;;
    pattern) truncate -s "$size" "$raw" && pattern_ops write && qemu-io -f raw "${ops[@]}" "$raw" >/dev/null ;;
    layout:*) sh "$here/guests/build-guest-disk.sh" "$here/layouts/${content#layout:}.txt" "$raw" ;;
    esac || return 1
    # A flat extent is the raw disk itself: moved into place, not copied by a converter.
    if [ "$sub" = monolithicFlat ]; then
      qemu-img create -q -f vmdk -o "$opts" "$src/$file" "$size" && mv "$raw" "$src/${file%.vmdk}-flat.vmdk"
    else
      qemu-img convert -q -f raw -O vmdk -o "$opts" "$raw" "$src/$file" && rm "$raw"
    fi || return 1
    disks+=("$src/$file")
    i=$((i + 1))
  done
  printf '%s\n' "$text" >"$src/${vmx:-$name.vmx}"
  : >"$src/${name}.vmsd"
}

# Every file under a folder with its size, time and sha256.
snapshot() { (cd "$1" && find . -type f -printf '%P %s %T@\n' | sort && find . -type f -print0 | sort -z | xargs -0r sha256sum); }

args_for() { # NAME: the row's arguments for a run of VM NAME
  local spec=${row[2]} a IFS=' '
  [[ $spec == +* ]] && spec="-p \$SRC -o \$OUT -n \$VM --yes ${spec#+}"
  [[ $spec == \|* ]] && IFS='|'
  args=()
  for a in $spec; do [ -n "$a" ] && args+=("$(vm=$1 subst "$a")"); done
  # Whatever name a run may define is removed again, given or read from the source.
  [[ " ${args[*]} " == *" -n "* ]] || vms+=("$name")
  for a in "${!args[@]}"; do [ "${args[a]}" = -n ] && vms+=("${args[a + 1]}"); done
  return 0
}

# SH-TEST PID: waits until the test holds, or fails once the program has gone.
wait_for() { until eval "$1"; do kill -0 "$2" 2>/dev/null || return 1; sleep 0.05; done; }
at_tty() { script -qfec "$(printf '%q ' "$@")" /dev/null; }

# Runs the program as the row's fault says; leaves $rc and the output in $work/o, $work/e.
# A signal fault waits for its moment (a test), pauses, and signals the program, its
# process group or a child.
run() {
  local fault=${row[3]} at='' pause=0 sig=INT victim='$pid' pid t0
  local sdb='pgrep -P $pid -f -- "-sdb[.]qcow2$" >/dev/null' wrap=(env --default-signal=INT)
  args_for "$vm"
  case $fault in
  none) ;;
  full-tmpfs) mount -t tmpfs -o size=8m tmpfs "$out" ;;
  log-missing) mount -t tmpfs tmpfs /var/log ;;
  log-file) mount -t tmpfs tmpfs /var/log && echo 'not a directory' >/var/log/orvane ;;
  log-readonly) mount -t tmpfs -o ro tmpfs /var/log/orvane ;;
  again) # a first run, whose output and VM the second one and its dry run leave alone
    "$prog" "${args[@]}" >/dev/null 2>"$work/e" </dev/null || fail "first run: $(cat "$work/e")"
    virsh dumpxml "$vm" >"$work/xml1" && snapshot "$out" >"$work/out1" ;;
  tty) wrap=(at_tty) ;; # where the progress of the real qemu-img is drawn
  strace) wrap=(strace -f -y -qq -s 4096 -e trace=execve,fsync,fdatasync -o "$work/trace") ;;
  race-first) race 1 2; return ;;
  race-second) race 2 1; return ;;
  parallel:*) parallel "${fault#parallel:}"; return ;;
  kill-qemu-img) at=$sdb pause=0.1 sig=KILL victim='$(pgrep -P $pid -f -- "-sdb[.]qcow2$")' ;;
  sigint | sigint-group) at=$sdb pause=0.5 ;;
  sigint-guestfish) at='pgrep -P $pid -x guestfish >/dev/null' pause=3 ;;
  sigint-pool | sigint-group-pool) at='virsh pool-list --all --name | grep -qxF "${out##*/}"'
    # virt-install's pool lives only until it ends, too short to hit on a quiet host:
    # the real one runs, then lingers so that the signal finds its pool in place.
    mkdir "$work/bin" && wrap+=(PATH="$work/bin:$PATH")
    printf '#!/bin/sh\n%s "$@"; rc=$?; sleep 2; exit $rc\n' "$(command -v virt-install)" >"$work/bin/virt-install"
    chmod +x "$work/bin/virt-install" ;;
  *) fail "unknown fault $fault" ;;
  esac
  # With a process group of its own, a signal to the group is Ctrl-C at the terminal.
  [[ $fault == *group* ]] && wrap=(setsid "${wrap[@]}") victim='-$pid'
  "${wrap[@]}" "$prog" "${args[@]}" >"$work/o" 2>"$work/e" </dev/null &
  pid=$!
  if [ -n "$at" ]; then
    wait_for "$at" $pid || fail "the run ended before the fault"
    sleep $pause
    t0=$(date +%s%N)
    eval "kill -$sig -- $victim"
  fi
  wait $pid
  rc=$?
  if [ -n "$at" ]; then
    (($(date +%s%N) - t0 < 5000000000)) || fail "took more than 5 s from the signal to the exit"
    ! pgrep -f -- "$out/" >/dev/null || fail "a process on the output outlived the run"
  elif [ "$fault" = again ]; then # the dry run must name every collision too
    "$prog" "${args[@]/--yes/--dry-run}" >>"$work/o" 2>>"$work/e" </dev/null
    local dry=$?
    [ $dry = "${row[4]}" ] || fail "dry run after the first run exit $dry"
    [ "$(snapshot "$out")" = "$(cat "$work/out1")" ] || fail "the second run touched the output"
    [ "$(virsh dumpxml "$vm")" = "$(cat "$work/xml1")" ] || fail "the second run changed the VM"
  fi
}

race() { # two runs of one VM, both at the prompt; run $1 answered first, then run $2
  local n f pid=() fd=()
  for n in 1 2; do
    mkfifo "$work/in$n"
    "$prog" "${args[@]}" <"$work/in$n" >"$work/o$n" 2>&1 &
    pid[n]=$!
    exec {f}>"$work/in$n" && fd[n]=$f
    wait_for "grep -q 'Proceed? (yes/no): ' \"\$work/o$n\"" ${pid[n]} || fail "no prompt in run $n"
  done
  echo yes >&${fd[$1]}
  wait_for "pgrep -P ${pid[$1]} -x qemu-img >/dev/null" ${pid[$1]} || fail "the winner never converted"
  echo yes >&${fd[$2]}
  wait ${pid[$2]}
  rc=$?
  wait ${pid[$1]} || fail "the run answered first exit $?"
  cp "$work/o$2" "$work/o" && : >"$work/e"
}

parallel() { # N runs of different VMs at once; each must succeed
  local i dir=$out pid=()
  for ((i = 0; i < $1; i++)); do
    args_for "$vm-$i"
    "$prog" "${args[@]}" >"$work/o$i" 2>&1 </dev/null &
    pid[i]=$!
  done
  [[ " ${args[*]} " == *" -o "* ]] || dir=$pool
  rc=0
  for ((i = 0; i < $1; i++)); do
    wait ${pid[i]} || { rc=$?; fail "run $i: $(cat "$work/o$i")"; }
    virsh dominfo "$vm-$i" >/dev/null 2>&1 || fail "$vm-$i is not defined"
    qemu-img compare -q "${disks[0]}" "$dir/$vm-$i.qcow2" || fail "$vm-$i.qcow2 differs from its source"
  done
  : >"$work/o" && : >"$work/e"
}

lines() { sed -E 's/^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\] //' "$@"; }
has_lines() { # FILE A|B|~C: consecutive lines, each the text or matching (after ~) the Perl pattern
  local want got i j
  IFS='|' read -r -a want <<<"$2"
  mapfile -t got < <(lines "$1")
  for ((i = 0; i + ${#want[@]} <= ${#got[@]}; i++)); do
    for ((j = 0; j < ${#want[@]}; j++)); do
      if [[ ${want[j]} == '~'* ]]; then grep -qP -- "${want[j]#\~}" <<<"${got[i + j]}"; else [ "${got[i + j]}" = "${want[j]}" ]; fi || continue 2
    done
    return 0
  done
  return 1
}
record() { grep -F " vm=$vm " /var/log/orvane/orvane-v2v.log 2>/dev/null | tail -1; }
xml() { virsh dumpxml "$vm" 2>/dev/null | tr -d '\n'; }

# Started on the machine the domain names, a UEFI guest with empty variables as libvirt's
# would be; its disk on bus ide.0, which is the AHCI (SATA) controller built into q35 and
# the IDE one of i440fx. Serial to a file; the marker proves the boot.
boot() { # IMAGE: prints booted, gave-up or timeout
  local x m fw=() pid
  x=$(virsh dumpxml --inactive "$vm")
  m=$(grep -oP "machine=['\"]\K[^'\"]+" <<<"$x" | head -1)
  grep -qE "firmware=.efi.|<loader" <<<"$x" && cp /usr/share/OVMF/OVMF_VARS_4M.fd "$work/vars.fd" &&
    fw=(-drive if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd -drive "if=pflash,format=raw,file=$work/vars.fd")
  : >"$work/serial.log"
  timeout 600 qemu-system-x86_64 -machine "${m:-pc}" -accel tcg -m 512 -nodefaults -display none -no-reboot \
    -serial "file:$work/serial.log" "${fw[@]}" -drive "file=$1,if=none,id=d0,snapshot=on" -device ide-hd,drive=d0,bus=ide.0 2>"$work/qemu.log" &
  pid=$!
  # The first line that settles it; none if qemu ends (or times out) first.
  case $(grep -aom1 -E 'ORVANE-BOOT-OK|EFI Internal Shell|Shell> |No bootable|grub rescue>|Kernel panic' \
    < <(tail -n +1 -f --pid=$pid "$work/serial.log" 2>/dev/null)) in
  ORVANE-BOOT-OK) echo booted ;;
  '') echo timeout ;;
  *) echo gave-up ;;
  esac
  kill $pid 2>/dev/null
}

check() { # one check column, KIND:ARG
  local kind=${1%%:*} arg
  arg=$(subst "${1#*:}")
  case $kind in
  out | err) has_lines "$work/${kind:0:1}" "$arg" || fail "no $kind lines: $arg" ;;
  once) [ "$(lines "$work/e" | grep -cxF -- "$arg")" = 1 ] || fail "not exactly once: $arg" ;;
  has) cat "$work/o" "$work/e" | grep -qF -- "$arg" || fail "nothing says: $arg" ;;
  not) ! cat "$work/o" "$work/e" | grep -qF -- "$arg" || fail "says what it must not: $arg" ;;
  tmpxml) # the domain XML handed to virsh does not outlive the run
    local f=$(lines "$work/e" | sed -n 's/^ERROR: error: Failed to define domain from //p')
    [ -n "$f" ] && [ ! -e "$f" ] || fail "the temporary domain XML '$f' is left" ;;
  record) [[ $(record) == $arg ]] || fail "record '$(record)' is not $arg" ;;
  state) local s; s=$(virsh domstate "$vm" 2>/dev/null | head -1)
    [ "${s:-undefined}" = "$arg" ] || fail "state is ${s:-undefined}, not $arg" ;;
  files) [ "$(ls -A "$out" | tr '\n' ' ')" = "$arg" ] || fail "output holds '$(ls -A "$out" | tr '\n' ' ')', not '$arg'" ;;
  same) qemu-img compare -q -f vmdk -F qcow2 "${arg%%=*}" "${arg#*=}" || fail "differs: $arg" ;;
  pattern) pattern_ops read && ! qemu-io -f qcow2 "${ops[@]}" "$arg" | grep -q 'Pattern verification failed' ||
    fail "the data is not where it was: $arg" ;;
  xml) grep -qP -- "$arg" <<<"$(xml)" || fail "domain XML lacks /$arg/: $(xml)" ;;
  macs) [ "$(grep -oP "<mac address='\K[^']+" <<<"$(xml)" | tr '\n' ' ')" = "$arg" ] || fail "MACs are not $arg" ;;
  esp) # IMAGE:PATH=LAYOUT:PATH-THERE (the file as the layout has it) or IMAGE:PATH=absent
    local image=${arg%%:*} path=${arg#*:} expect=${arg##*=} got
    path=${path%%=*}
    [ -f "$work/esp.raw" ] || qemu-img convert -O raw "$image" "$work/esp.raw"
    got=$(mtype -i "$work/esp.raw@@1M" "::$path" 2>/dev/null) || got=absent
    [ "$expect" = absent ] || expect=$(sed -n "s|^${expect#*:} ||p" "$here/layouts/${expect%%:*}.txt" | tr -d '\n')
    [ "$got" = "$expect" ] || fail "$path is '$got', not '$expect'" ;;
  boots) [ "$(boot "$arg")" = booted ] || fail "$arg does not boot: $(tail -c 600 "$work/serial.log")" ;;
  control) # the same source converted without the fix, on the same hardware: no boot
    qemu-img convert -O qcow2 "${disks[0]}" "$work/unfixed.qcow2" &&
      [ "$(boot "$work/unfixed.qcow2")" = gave-up ] || fail "the unfixed disk did not give up" ;;
  starts) # libvirt starts what was defined; once a UEFI guest has its variable store,
    # the program's rollback form of undefine (with --nvram) still removes it, store and all
    local nvram
    # Where /dev/kvm runs no guest, libvirt refuses the type virt-install chose: emulate.
    [ "$kvm" = works ] || sed -E "s/<domain type='kvm'/<domain type='qemu'/; /<cpu mode='host-passthrough'.*\/>/d" \
      <(virsh dumpxml --inactive "$vm") | virsh define /dev/stdin >/dev/null
    virsh start "$vm" >/dev/null || fail "libvirt cannot start $vm"
    nvram=$(virsh dumpxml "$vm" | sed -n 's:.*<nvram[^>]*>\(.*\)</nvram>.*:\1:p')
    virsh destroy "$vm" >/dev/null 2>&1
    [ -f "$nvram" ] && virsh undefine "$vm" --nvram >/dev/null && [ ! -e "$nvram" ] ||
      fail "undefine --nvram did not remove $vm and its variable store '$nvram'" ;;
  vol) virsh vol-list default | awk '{print $1}' | grep -qxF "$arg" || fail "the pool does not list $arg" ;;
  retry) # room again: the same run now succeeds, with nothing to clear by hand
    mount -o remount,size=128m "$out" && "$prog" "${args[@]}" >/dev/null 2>&1 </dev/null || fail "the retry failed"
    check "state:shut off" ;;
  runlog) ls /var/log/orvane/v2v | grep -q "^$vm-.*\.log$" || fail "no run log named after $vm" ;;
  flushed) # every image fsync'ed after its converter, and its directory after that, before define
    awk -v out="$out" -v imgs="$arg" 'BEGIN { n = split(imgs, img, " ") }
      /execve\(.*"virsh", "define"/ { define = 1 } define { next }
      { for (i = 1; i <= n; i++) { p = out "/" img[i]
          if (/execve\(/ && /qemu-img/ && index($0, p)) { conv[i] = 1; file[i] = 0; dir[i] = 0 }
          if (conv[i] && /fsync\(/ && index($0, "<" p ">) = 0")) file[i] = 1
          if (file[i] && /fsync\(/ && index($0, "<" out ">) = 0")) dir[i] = 1 } }
      END { if (!define) exit 1; for (i = 1; i <= n; i++) if (!dir[i]) exit 1 }' "$work/trace" ||
      fail "not every image and its directory was flushed before virsh define" ;;
  kvm) # the finding agrees with the device, and emulation is what libguestfs gets
    [ -e /dev/kvm ] || [ "$kvm" = absent ] || fail "no /dev/kvm, yet the finding is $kvm"
    [ "$kvm" = works ] || [ "${LIBGUESTFS_BACKEND_SETTINGS:-}" = force_tcg ] || fail "libguestfs may pick KVM" ;;
  *) fail "unknown check $kind" ;;
  esac
}

make_folder "${row[1]}" || { fail "cannot make the source folder"; exit 1; }
# A first disk as a partial descriptor copy leaves it, naming its extents by absolute
# paths, which qemu-img itself would follow.
[ "${row[3]}" = absolute-extents ] && row[3]=none && d=${disks[0]%.vmdk} && sed -i "s|\"${d##*/}-|\"$d-|" "${disks[0]}"
before=$(snapshot "$src")
run
[ "$rc" = "${row[4]}" ] || [[ ${row[4]} == '!0' && $rc != 0 ]] || fail "exit code $rc, not ${row[4]}"
for c in "${row[@]:5}"; do [ -n "$c" ] && check "$c"; done
[ "$(snapshot "$src")" = "$before" ] || fail "the source folder changed"
[ -z "$(ls -A "$work/cwd")" ] && [ -z "$(find "$work" -name pwned)" ] || fail "a shell ran a name"
[ -z "$(pools_under)" ] || fail "pools left: $(pools_under)"
[ $failed = 0 ] && [ -z "${E2E_SHOW:-}" ] && { echo "PASS [$id]"; exit 0; }
echo "--- output ---"; cat "$work/o"; echo "--- errors ---"; cat "$work/e"
exit $failed
