#!/usr/bin/env bash
# Runs one row of the real-host scenario table against the real tools:
#
#   run-scenario.sh TABLE ID PROGRAM
#
# A row is tab-separated: id, source folder, arguments, fault, exit code, then one
# check per column (see scenarios.tsv). Whatever the row says, every run must leave the
# source folder as it was (content and times), leave no libvirt pool behind for its
# directories and run no shell on the names it was given. What a row makes carries
# "e2e-" and this process's id, and goes again however the row ends.
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
[ "$(cat /run/orvane-v2v/kvm 2>/dev/null)" = works ] || export LIBGUESTFS_BACKEND_SETTINGS=force_tcg
export MTOOLS_SKIP_CHECK=1

IFS=$'\t' read -r -a row < <(grep -P "^\Q$id\E\t" "$table")
[ "${#row[@]}" -ge 5 ] || { echo "no row $id in $table"; exit 1; }
work=$(mktemp -d /var/tmp/e2e-"$id".XXXXXX) && chmod 755 "$work"
vm=e2e-$id-$$
mac=$(printf '%02x:%02x' $(($$ >> 8 & 255)) $(($$ & 255)))
pool=$(virsh pool-dumpxml default | sed -n 's:.*<path>\(.*\)</path>.*:\1:p')
name=e2e-src out=$work/$vm-out src='' disks=() vms=("$vm") failed=0
mkdir -p "$out" "$work/cwd" && cd "$work/cwd" || exit 1

fail() { echo "FAIL [$id]: $*"; failed=1; }

pools_under() { # NAME PATH of every pool whose directory lies under $work
  virsh pool-list --all --name | while read -r p; do
    [ -n "$p" ] || continue
    path=$(virsh pool-dumpxml "$p" 2>/dev/null | sed -n 's:.*<path>\(.*\)</path>.*:\1:p')
    case $path in "$work"*) echo "$p $path" ;; esac
  done
}

cleanup() {
  # By UUID: a name such as "1", "-d" or a UUID would make virsh look up another domain.
  virsh list --all --uuid | while read -r uuid; do
    [ -n "$uuid" ] || continue
    name=$(virsh domname "$uuid" 2>/dev/null | head -1)
    for v in "${vms[@]}"; do
      [ "$name" = "$v" ] && { virsh undefine "$uuid" --nvram >/dev/null 2>&1 || virsh undefine "$uuid" >/dev/null 2>&1; }
    done
  done
  pools_under | while read -r p _; do virsh pool-destroy "$p"; virsh pool-undefine "$p"; done >/dev/null 2>&1
  local refresh=0
  for v in "${vms[@]}"; do
    for f in "$pool/$v".qcow2 "$pool/$v"-*.qcow2; do [[ $v == e2e-* && -f $f ]] && rm -f "$f" && refresh=1; done
  done
  [ $refresh = 0 ] || virsh pool-refresh default >/dev/null
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

make_raw() { # PATH SIZE CONTENT
  case $3 in
  random) head -c "$2" /dev/urandom >"$1" ;;
  # Data at the start, in the middle, across VMware's 2 GiB extent boundary, at the end.
  pattern) truncate -s "$2" "$1" && pattern_ops write && qemu-io -f raw "${ops[@]}" "$1" >/dev/null ;;
  layout:*) sh "$here/guests/build-guest-disk.sh" layout "$here/layouts/${3#layout:}.txt" "$1" ;;
  guest:*)
    sh "$here/guests/build-guest-disk.sh" "${3#guest:}" "$(ls -v /boot/vmlinuz-* | tail -1)" "$1" ;;
  esac
}
pattern_ops() { ops=(); for p in '0xa1 0 64k' '0xb2 1M 4k' '0xc3 2047M 2M' '0xd4 3068M 4k'; do ops+=(-c "$1 -P $p"); done; }

make_folder() { # TEMPLATE|name=..|dir=..|vmx=..|disk=KEY,FILE,SUBFORMAT,SIZE,CONTENT|...
  local IFS='|' parts dir='' vmx='' i=0 text seen=' '
  read -r -a parts <<<"$1"
  IFS=$' \t\n'
  for p in "${parts[@]:1}"; do
    case $p in
    name=*) name=${p#name=} ;;
    dir=*) dir=${p#dir=} ;;
    vmx=*) vmx=${p#vmx=} ;;
    out=*) out=$work/${p#out=} && mkdir "$out" ;;
    esac
  done
  src=$work/src/${dir:-$name}
  mkdir -p "$src"
  text=$(<"$here/vmx/${parts[0]}.vmx")
  text=${text//@NAME@/$name} text=${text//@MAC@/$mac}
  for p in "${parts[@]:1}"; do
    [[ $p == disk=* ]] || continue
    IFS=, read -r key file sub size content <<<"${p#disk=}"
    local ctl=${key%%:*} adapter=ide
    [ -n "$file" ] || { file=$name.vmdk; [ $i = 0 ] || file=${name}_$i.vmdk; }
    if [[ $ctl != ide* && $seen != *" $ctl "* ]]; then
      [[ $ctl == scsi* ]] && text+=$'\n'"$ctl.virtualDev = \"lsisas1068\""
      text+=$'\n'"$ctl.present = \"TRUE\""
      seen+="$ctl "
    fi
    [[ $ctl == scsi* ]] && adapter=lsilogic
    text+=$'\n'"$key.fileName = \"$file\""$'\n'"$key.present = \"TRUE\""
    local opts=subformat=$sub,adapter_type=$adapter
    # Written in place where the layout allows: no copy of gigabytes through a raw file.
    case $content-$sub in
    blank-* | pattern-[mt]* | random-monolithicFlat)
      qemu-img create -q -f vmdk -o "$opts" "$src/$file" "$size" || return 1
      case $content in
      pattern) pattern_ops write && qemu-io -f vmdk "${ops[@]}" "$src/$file" >/dev/null ;;
      random) head -c "$size" /dev/urandom | dd of="$src/${file%.vmdk}-flat.vmdk" conv=notrunc status=none ;;
      esac ;;
    *) make_raw "$work/raw$i" "$size" "$content" &&
      qemu-img convert -q -f raw -O vmdk -o "$opts" "$work/raw$i" "$src/$file" && rm "$work/raw$i" ;;
    esac || return 1
    disks+=("$src/$file")
    i=$((i + 1))
  done
  printf '%s\n' "$text" >"$src/${vmx:-$name.vmx}"
  : >"$src/${name}.vmsd"
}

snapshot() { # every file under a folder with its size, time and sha256
  (cd "$1" && find . -type f -printf '%P %s %T@\n' | sort && find . -type f -print0 | sort -z | xargs -0r sha256sum)
}

# A folder whose first disk is the output of a partial descriptor copy that names its
# extents by absolute paths, which qemu-img itself would follow.
absolute_extents() {
  sed -i "s|\"$(basename "${disks[0]%.vmdk}")-|\"${disks[0]%/*}/$(basename "${disks[0]%.vmdk}")-|" "${disks[0]}"
}

args_for() { # NAME: the row's arguments for a run of VM NAME
  local spec=${row[2]} a
  [ "$spec" = - ] && spec='-p $SRC -o $OUT -n $VM --yes'
  [[ $spec == +* ]] && spec="-p \$SRC -o \$OUT -n \$VM --yes ${spec#+}"
  local IFS=' '
  [[ $spec == \|* ]] && IFS='|'
  args=()
  for a in $spec; do [ -n "$a" ] && args+=("$(vm=$1 subst "$a")"); done
  # Whatever name a run may define is removed again, given or read from the source.
  [[ " ${args[*]} " == *" -n "* ]] || vms+=("$name")
  for a in "${!args[@]}"; do [ "${args[a]}" = -n ] && vms+=("${args[a + 1]}"); done
  return 0
}

wait_for() { # SH-TEST PID: until the test holds or the program has gone
  until eval "$1"; do kill -0 "$2" 2>/dev/null || return 1; sleep 0.05; done
}

# Runs the program as the row's fault says; leaves $rc and the output in $work/o, $work/e.
run() {
  local fault=${row[3]} pid t0
  args_for "$vm"
  case $fault in
  none | again | full-tmpfs | log-*)
    case $fault in
    full-tmpfs) mount -t tmpfs -o size=8m tmpfs "$out" ;;
    log-missing) mount -t tmpfs tmpfs /var/log ;;
    log-file) mount -t tmpfs tmpfs /var/log && echo 'not a directory' >/var/log/orvane ;;
    log-readonly) mount -t tmpfs -o ro tmpfs /var/log/orvane ;;
    esac
    if [ "$fault" = again ]; then
      "$prog" "${args[@]}" >/dev/null 2>"$work/e" </dev/null || fail "first run: $(cat "$work/e")"
      virsh dumpxml "$vm" >"$work/xml1"
      snapshot "$out" >"$work/out1"
    fi
    "$prog" "${args[@]}" >"$work/o" 2>"$work/e" </dev/null
    rc=$?
    if [ "$fault" = again ]; then # and its dry run: it must name every collision too
      args_for "$vm" && args=("${args[@]/--yes/--dry-run}")
      "$prog" "${args[@]}" >>"$work/o" 2>>"$work/e" </dev/null
      [ $? = "${row[4]}" ] || fail "dry run after the first run exit $?"
      [ "$(snapshot "$out")" = "$(cat "$work/out1")" ] || fail "the second run touched the output"
      [ "$(virsh dumpxml "$vm")" = "$(cat "$work/xml1")" ] || fail "the second run changed the VM"
    fi ;;
  kill-qemu-img | sigint | sigint-group | sigint-pool | sigint-group-pool | sigint-guestfish)
    local at='pgrep -P $pid -f -- "-sdb[.]qcow2$" >/dev/null' pause=0.5 runpath=$PATH
    case $fault in
    kill-qemu-img) pause=0.1 ;;
    *pool) at='virsh pool-list --all --name | grep -qxF "${out##*/}"' pause=0
      # virt-install's pool lives only until it ends, too short to hit on a quiet host:
      # the real one runs, then lingers so that the signal finds its pool in place.
      mkdir -p "$work/pool-bin" && runpath="$work/pool-bin:$PATH"
      printf '#!/bin/sh\n%s "$@"; rc=$?; sleep 2; exit $rc\n' "$(command -v virt-install)" >"$work/pool-bin/virt-install"
      chmod +x "$work/pool-bin/virt-install" ;;
    sigint-guestfish) at='pgrep -P $pid -x guestfish >/dev/null' pause=3 ;;
    esac
    # As from a terminal: SIGINT at its default, and with -group a process group of
    # its own, so that a signal to the group is Ctrl-C at the terminal.
    if [[ $fault == *group* ]]; then
      setsid env --default-signal=INT PATH="$runpath" "$prog" "${args[@]}" >"$work/o" 2>"$work/e" </dev/null &
    else
      env --default-signal=INT PATH="$runpath" "$prog" "${args[@]}" >"$work/o" 2>"$work/e" </dev/null &
    fi
    pid=$!
    wait_for "$at" $pid || fail "the run ended before the fault"
    sleep $pause
    local child
    child=$(pgrep -P $pid -f -- '-sdb[.]qcow2$')
    t0=$(date +%s%N)
    case $fault in
    kill-qemu-img) kill -KILL $child ;;
    *group*) kill -INT -- -$pid ;;
    *) kill -INT $pid ;;
    esac
    wait $pid
    rc=$?
    (($(date +%s%N) - t0 < 5000000000)) || fail "took more than 5 s from the signal to the exit"
    [[ $fault != sigint-guestfish ]] || ! pgrep -f -- "$out/" >/dev/null || fail "an appliance outlived the stop" ;;
  tty) # at a terminal, where the progress of the real qemu-img is drawn
    script -qfec "$(printf '%q ' "$prog" "${args[@]}")" /dev/null >"$work/o" </dev/null
    rc=$? && : >"$work/e" ;;
  strace)
    strace -f -y -qq -s 4096 -e trace=execve,fsync,fdatasync -o "$work/trace" \
      "$prog" "${args[@]}" >"$work/o" 2>"$work/e" </dev/null
    rc=$? ;;
  race-first | race-second) # two runs of one VM, both at the prompt; one answered first
    local p1 p2 winner loser wo lo
    mkfifo "$work/in1" "$work/in2"
    "$prog" "${args[@]}" <"$work/in1" >"$work/o1" 2>&1 & p1=$!
    exec 7>"$work/in1"
    "$prog" "${args[@]}" <"$work/in2" >"$work/o2" 2>&1 & p2=$!
    exec 8>"$work/in2"
    for o in o1 o2; do wait_for "grep -q 'Proceed? (yes/no): ' $work/$o" $p1 || fail "no prompt in $o"; done
    if [ "$fault" = race-first ]; then winner=$p1 loser=$p2 wo=7 lo=8; else winner=$p2 loser=$p1 wo=8 lo=7; fi
    echo yes >&$wo
    wait_for 'pgrep -P $winner -x qemu-img >/dev/null' $winner || fail "the winner never converted"
    echo yes >&$lo
    wait $loser
    rc=$?
    wait $winner || fail "the run answered first exit $?"
    exec 7>&- 8>&-
    if [ $loser = $p1 ]; then cat "$work/o1" >"$work/o"; else cat "$work/o2" >"$work/o"; fi
    : >"$work/e" ;;
  parallel:*) # runs of different VMs at once; each must succeed
    local n=${fault#parallel:} i
    vms=()
    for ((i = 0; i < n; i++)); do
      vms+=("$vm-$i")
      args_for "$vm-$i"
      "$prog" "${args[@]}" >"$work/o$i" 2>&1 </dev/null &
      pids[i]=$!
    done
    rc=0
    for ((i = 0; i < n; i++)); do
      wait ${pids[i]} || { rc=$?; fail "run $i: $(cat "$work/o$i")"; }
      virsh dominfo "$vm-$i" >/dev/null 2>&1 || fail "$vm-$i is not defined"
      local dir=$out
      [[ " ${args[*]} " == *" -o "* ]] || dir=$pool
      qemu-img compare -q "${disks[0]}" "$dir/$vm-$i.qcow2" || fail "$vm-$i.qcow2 differs from its source"
    done
    : >"$work/o"; : >"$work/e" ;;
  *) fail "unknown fault $fault" ;;
  esac
}

lines() { sed -E 's/^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\] //' "$@"; }
record() { grep -F " vm=$vm " /var/log/orvane/orvane-v2v.log 2>/dev/null | tail -1; }
xml() { virsh dumpxml "$vm" 2>/dev/null | tr -d '\n'; }
esp_file() { # IMAGE PATH: a file of the image's first partition
  [ -f "$work/esp.raw" ] || qemu-img convert -O raw "$1" "$work/esp.raw"
  mtype -i "$work/esp.raw@@1M" "::$2" 2>/dev/null
}
layout_text() { sed -n "s|^$2 ||p" "$here/layouts/$1.txt" | tr -d '\n'; }

# A UEFI guest is started as libvirt's would be, with empty variables; a BIOS one on the
# machine and disk bus the domain names. Serial to a file; the marker proves the boot.
boot() { # IMAGE XML: prints booted, gave-up or timeout
  local m bus dev fw=() vars=$work/vars.fd serial=$work/serial.log pid i
  m=$(grep -oP "machine=['\"]\K[^'\"]+" <<<"$2" | head -1)
  bus=$(grep -oP "device=.disk.>.*?bus=['\"]\K[a-z]+" <<<"$2" | head -1)
  if grep -qE "firmware=.efi.|<loader" <<<"$2"; then
    cp /usr/share/OVMF/OVMF_VARS_4M.fd "$vars"
    fw=(-drive if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd -drive "if=pflash,format=raw,file=$vars")
  fi
  dev=(-device ide-hd,drive=d0,bus=ide.0)
  [[ $bus == sata && $m != *q35* ]] && dev=(-device ahci,id=sata0 -device ide-hd,drive=d0,bus=sata0.0)
  : >"$serial"
  timeout 600 qemu-system-x86_64 -machine "${m:-pc}" -accel tcg -m 512 -nodefaults -display none \
    -no-reboot -serial "file:$serial" "${fw[@]}" -drive "file=$1,if=none,id=d0,snapshot=on" "${dev[@]}" 2>"$work/qemu.log" &
  pid=$!
  for ((i = 0; i < 6000; i++)); do
    grep -qa ORVANE-BOOT-OK "$serial" && { kill $pid 2>/dev/null; echo booted; return; }
    grep -qaE 'EFI Internal Shell|Shell> |No bootable|grub rescue>|Kernel panic' "$serial" && { kill $pid 2>/dev/null; echo gave-up; return; }
    kill -0 $pid 2>/dev/null || break
    sleep 0.1
  done
  kill $pid 2>/dev/null
  echo timeout
}

check() { # one check column
  local kind=${1%%:*} arg
  arg=$(subst "${1#*:}")
  case $kind in
  out) lines "$work/o" | grep -qxF -- "$arg" || fail "no output line: $arg" ;;
  err) lines "$work/e" | grep -qxF -- "$arg" || fail "no error line: $arg" ;;
  has) cat "$work/o" "$work/e" | grep -qF -- "$arg" || fail "nothing says: $arg" ;;
  not) ! cat "$work/o" "$work/e" | grep -qF -- "$arg" || fail "says what it must not: $arg" ;;
  once) [ "$(lines "$work/e" | grep -cxF -- "$arg")" = 1 ] || fail "not exactly once: $arg" ;;
  seq) # consecutive error lines, separated by |; one that starts with ~ is a pattern
    local want got i
    IFS='|' read -r -a want <<<"$arg"
    mapfile -t got < <(lines "$work/e" | grep -xF -A$((${#want[@]} - 1)) -- "${want[0]}" | head -${#want[@]})
    for i in "${!want[@]}"; do
      if [[ ${want[i]} == ~* ]]; then [[ ${got[i]:-} =~ ${want[i]#\~} ]]; else [ "${got[i]:-}" = "${want[i]}" ]; fi ||
        { fail "line $i after '${want[0]}' is '${got[i]:-}', not '${want[i]}'"; break; }
    done ;;
  tmpxml) # the domain XML handed to virsh does not outlive the run
    local f
    f=$(lines "$work/e" | sed -n 's/^ERROR: error: Failed to define domain from //p')
    [ -n "$f" ] && [ ! -e "$f" ] || fail "the temporary domain XML '$f' is left" ;;
  errgrep) lines "$work/e" | grep -qP -- "$arg" || fail "no error line matching: $arg" ;;
  record) [[ $(record) == *"$arg"* ]] || fail "record '$(record)' lacks: $arg" ;;
  record-end) [[ $(record) == *"$arg" ]] || fail "record '$(record)' does not end with: $arg" ;;
  defined) virsh dominfo "$vm" >/dev/null 2>&1 || fail "$vm is not defined" ;;
  undefined) ! virsh dominfo "$vm" >/dev/null 2>&1 || fail "$vm is defined" ;;
  state) [ "$(virsh domstate "$vm" | head -1)" = "$arg" ] || fail "state is not $arg" ;;
  files) [ "$(ls -A "$out" | tr '\n' ' ')" = "$arg" ] || fail "output holds '$(ls -A "$out" | tr '\n' ' ')', not '$arg'" ;;
  same) qemu-img compare -q -f vmdk -F qcow2 "${arg%%=*}" "${arg#*=}" || fail "differs: $arg" ;;
  pattern) pattern_ops read && ! qemu-io -f qcow2 "${ops[@]}" "$arg" | grep -q 'Pattern verification failed' ||
    fail "the data is not where it was: $arg" ;;
  xml) grep -qP -- "$arg" <<<"$(xml)" || fail "domain XML lacks /$arg/: $(xml)" ;;
  macs) [ "$(grep -oP "<mac address='\K[^']+" <<<"$(xml)" | tr '\n' ' ')" = "$arg" ] || fail "MACs are not $arg" ;;
  esp) # IMAGE:PATH=LAYOUT:LAYOUT-PATH, or IMAGE:PATH=absent
    local image=${arg%%:*} rest=${arg#*:}
    local path=${rest%%=*} from=${rest#*=}
    if [ "$from" = absent ]; then
      esp_file "$image" "$path" >/dev/null && fail "$path is on the ESP"
    else
      [ "$(esp_file "$image" "$path")" = "$(layout_text "${from%%:*}" "${from#*:}")" ] || fail "$path is not $from"
    fi ;;
  boots) [ "$(boot "$arg" "$(virsh dumpxml --inactive "$vm")")" = booted ] || fail "$arg does not boot: $(tail -c 600 "$work/serial.log")" ;;
  control) # the same source converted without the fix, on the same hardware: no boot
    qemu-img convert -O qcow2 "${disks[0]}" "$work/unfixed.qcow2"
    [ "$(boot "$work/unfixed.qcow2" "$(virsh dumpxml --inactive "$vm")")" = gave-up ] || fail "the unfixed disk did not give up" ;;
  starts) # libvirt starts what was defined; once a UEFI guest has its variable store,
    # the program's rollback form of undefine (with --nvram) still removes it, store and all
    local nvram
    virsh start "$vm" >/dev/null || fail "libvirt cannot start $vm"
    nvram=$(virsh dumpxml "$vm" | sed -n 's:.*<nvram[^>]*>\(.*\)</nvram>.*:\1:p')
    virsh destroy "$vm" >/dev/null 2>&1
    [ -f "$nvram" ] && virsh undefine "$vm" --nvram >/dev/null && [ ! -e "$nvram" ] ||
      fail "undefine --nvram did not remove $vm and its variable store '$nvram'" ;;
  vol) virsh vol-list default | awk '{print $1}' | grep -qxF "$arg" || fail "the pool does not list $arg" ;;
  retry) # room again: the same run now succeeds, with nothing to clear by hand
    mount -o remount,size=128m "$out"
    args_for "$vm"
    "$prog" "${args[@]}" >/dev/null 2>&1 </dev/null || fail "the retry failed"
    virsh dominfo "$vm" >/dev/null 2>&1 || fail "the retry defined nothing" ;;
  runlog) ls /var/log/orvane/v2v | grep -q "^$vm-.*\.log$" || fail "no run log named after $vm" ;;
  flushed) # every image fsync'ed after its converter, and its directory after that, before define
    awk -v out="$out" -v imgs="$arg" '
      BEGIN { n = split(imgs, img, " ") }
      /execve\(.*"virsh", "define"/ { define = 1 }
      define { next }
      { for (i = 1; i <= n; i++) {
          p = out "/" img[i]
          if (/execve\(/ && /qemu-img/ && index($0, p)) { conv[i] = 1; file[i] = 0; dir[i] = 0 }
          if (conv[i] && /fsync\(/ && index($0, "<" p ">) = 0")) file[i] = 1
          if (file[i] && /fsync\(/ && index($0, "<" out ">) = 0")) dir[i] = 1 } }
      END { if (!define) exit 1; for (i = 1; i <= n; i++) if (!dir[i]) exit 1 }' "$work/trace" ||
      fail "not every image and its directory was flushed before virsh define" ;;
  kvm) # the finding agrees with the device, and emulation is what libguestfs gets
    local finding
    finding=$(cat /run/orvane-v2v/kvm)
    [ -e /dev/kvm ] || [ "$finding" = absent ] || fail "no /dev/kvm, yet the finding is $finding"
    [ "$finding" = works ] || [ "${LIBGUESTFS_BACKEND_SETTINGS:-}" = force_tcg ] || fail "libguestfs may pick KVM" ;;
  *) fail "unknown check $kind" ;;
  esac
}

make_folder "${row[1]}" || { fail "cannot make the source folder"; exit 1; }
[ "${row[3]}" = absolute-extents ] && absolute_extents && row[3]=none
before=$(snapshot "$src")
run
[ "$rc" = "${row[4]}" ] || [[ ${row[4]} == '!0' && $rc != 0 ]] || fail "exit code $rc, not ${row[4]}"
for c in "${row[@]:5}"; do [ -n "$c" ] && check "$c"; done
[ "$(snapshot "$src")" = "$before" ] || fail "the source folder changed"
[ -z "$(ls -A "$work/cwd")" ] && [ -z "$(find "$work" -name pwned)" ] || fail "a shell ran a name"
[ -z "$(pools_under)" ] || fail "pools left: $(pools_under)"
if [ $failed != 0 ] || [ -n "${E2E_SHOW:-}" ]; then
  echo "--- output ---"; cat "$work/o"; echo "--- errors ---"; cat "$work/e"
  exit $failed
fi
echo "PASS [$id]"
