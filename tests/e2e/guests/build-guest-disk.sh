#!/bin/sh
# Builds a 64 MiB raw disk from a layout (layouts/*.txt), from this host's packages only
# and without a guestfish launch:   build-guest-disk.sh LAYOUT OUTPUT
# A layout lists partitions, "part vfat|fat32|ext4 [SFDISK-FIELDS]", each followed by its
# files: "/path TEXT" (\n is a new line) or "/path <FILE", a copy of a host file or of
# @kernel, this host's newest, or @initrd, whose /init prints ORVANE-BOOT-OK on the serial
# console and powers off: one line proves a boot. "mbr-grub" makes the table MBR, with
# GRUB for i386-pc before the first partition where the BIOS installer puts it (boot.img
# in the MBR, core.img from sector 1: no loop device needed), reading that partition.
set -eu
layout=$(readlink -f "$1") output=$(readlink -f "$2")
work=$(mktemp -d /var/tmp/e2e-disk.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"
export MTOOLS_SKIP_CHECK=1

mkdir -p root/bin root/dev
cp /bin/busybox root/bin/
cat >root/init <<'INIT'
#!/bin/busybox sh
/bin/busybox mount -t devtmpfs devtmpfs /dev
/bin/busybox echo ORVANE-BOOT-OK >/dev/console
/bin/busybox poweroff -f
INIT
chmod 755 root/init
(cd root && find . | cpio -o -H newc --owner=0:0 --quiet) | gzip -9 >@initrd
ln -s "$(ls -v /boot/vmlinuz-* | tail -1)" @kernel

size=$((62 / $(grep -c '^part ' "$layout"))) i=0 table='label: gpt' grub=''
while read -r first rest; do
  case $first in
  '' | '#'*) ;;
  mbr-grub) table='label: dos' grub=1 ;;
  part)
    i=$((i + 1))
    set -- $rest
    echo "$1" >"fs$i" && mkdir "p$i" && shift
    table="$table
start=$((2048 + (i - 1) * size * 2048)), size=$((size * 2048))${*:+, $*}" ;;
  *)
    mkdir -p "p$i$(dirname "$first")"
    case $rest in
    '<'*) cp -L "${rest#<}" "p$i$first" ;;
    *) printf '%b' "$rest" >"p$i$first" ;;
    esac ;;
  esac
done <"$layout"
truncate -s 64M disk.raw
echo "$table" | sfdisk -q disk.raw
for j in $(seq "$i"); do
  case $(cat "fs$j") in
  ext4) mkfs.ext4 -q -d "p$j" "part$j" $((size * 1024))k >/dev/null ;;
  fat32) mkfs.vfat -F 32 -C "part$j" $((size * 1024)) >/dev/null && mcopy -s -i "part$j" "p$j"/* ::/ ;;
  *) mkfs.vfat -C "part$j" $((size * 1024)) >/dev/null && mcopy -s -i "part$j" "p$j"/* ::/ ;;
  esac
  dd if="part$j" of=disk.raw bs=1M seek=$((1 + (j - 1) * size)) conv=notrunc status=none
done
if [ -n "$grub" ]; then
  # Every module the configuration needs is built in: there is no module directory on
  # the disk for core.img to load from.
  grub-mkimage -O i386-pc -o core.img -p '(hd0,msdos1)/boot/grub' \
    biosdisk part_msdos fat normal configfile linux boot serial terminal echo test
  # boot.img's code stops before the disk signature and partition table at byte 440;
  # its built-in defaults (core.img at sector 1, boot drive from the BIOS) are right.
  dd if=/usr/lib/grub/i386-pc/boot.img of=disk.raw bs=440 count=1 conv=notrunc status=none
  dd if=core.img of=disk.raw bs=512 seek=1 conv=notrunc status=none
fi
mv disk.raw "$output"
