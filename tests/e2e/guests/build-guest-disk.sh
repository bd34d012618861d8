#!/bin/sh
# Builds a tiny bootable raw disk image for the boot proof, from this host's packages only.
#
#   build-guest-disk.sh uefi|bios KERNEL OUTPUT
#   build-guest-disk.sh layout LAYOUT OUTPUT
#
# layout: a 64 MiB GPT disk whose partitions and files a layout file lists ("part vfat esp",
#         "part ext4", then "/path content" lines), built without a guestfish launch.
#
# Both guests boot KERNEL with an initramfs whose /init prints ORVANE-BOOT-OK on the
# serial console (ttyS0) and powers the machine off, so a boot is proven by one line.
#
# uefi: GPT, one FAT32 EFI System Partition laid out as Debian 12's installer leaves it:
#       \EFI\debian\{shimx64,grubx64,mmx64,fbx64}.efi, grub.cfg and BOOTX64.CSV, and no
#       \EFI\BOOT. Firmware with empty NVRAM therefore finds nothing to boot until the
#       fallback loader is added.
# bios: MBR, GRUB for i386-pc in the gap before the first partition (boot.img in the MBR,
#       core.img from sector 1, as the BIOS installer would place them, without needing a
#       loop device), and a FAT32 partition holding /boot/grub/grub.cfg, kernel, initramfs.
set -eu

if [ "$1" = layout ]; then
  layout=$2 output=$3
  work=$(mktemp -d /var/tmp/e2e-layout.XXXXXX)
  trap 'rm -rf "$work"' EXIT
  export MTOOLS_SKIP_CHECK=1
  n=$(grep -c '^part ' "$layout")
  size=$((62 / n))
  i=0 table='label: gpt'
  while read -r first rest; do
    case $first in
    '' | '#'*) ;;
    part)
      i=$((i + 1))
      set -- $rest
      table="$table
start=$((2048 + (i - 1) * size * 2048)), size=$((size * 2048))${2:+, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B}"
      echo "$1" >"$work/fs$i"
      mkdir "$work/p$i" ;;
    *)
      mkdir -p "$work/p$i$(dirname "$first")"
      printf '%s' "$rest" >"$work/p$i$first" ;;
    esac
  done <"$layout"
  truncate -s 64M "$work/disk.raw"
  echo "$table" | sfdisk -q "$work/disk.raw"
  for j in $(seq "$i"); do
    if [ "$(cat "$work/fs$j")" = vfat ]; then
      mkfs.vfat -C "$work/part$j" $((size * 1024)) >/dev/null
      (cd "$work/p$j" && find . -mindepth 1 -type d | sed 's,^\.,::,' | xargs -r mmd -i "$work/part$j" &&
        find . -type f | sed 's,^\./,,' | while read -r f; do mcopy -i "$work/part$j" "$f" "::$f"; done)
    else
      mkfs.ext4 -q -d "$work/p$j" "$work/part$j" $((size * 1024))k >/dev/null 2>&1
    fi
    dd if="$work/part$j" of="$work/disk.raw" bs=1M seek=$((1 + (j - 1) * size)) conv=notrunc status=none
  done
  mv "$work/disk.raw" "$output"
  exit 0
fi

kind=$1
kernel=$2
output=$3

marker=ORVANE-BOOT-OK
part_mib=64
disk_mib=$((part_mib + 2))   # 1 MiB before the partition, room for the GPT backup after
part_sectors=$((part_mib * 2048))

work=$(mktemp -d /var/tmp/orvane-guest-build.XXXXXX)
trap 'rm -rf "$work"' EXIT
export MTOOLS_SKIP_CHECK=1

# The initramfs: a static busybox and an /init that proves the boot and powers off.
root=$work/initramfs
mkdir -p "$root/bin" "$root/dev" "$root/proc"
cp /bin/busybox "$root/bin/busybox"
ln -s busybox "$root/bin/sh"
# The kernel opens /dev/console for init before anything is mounted; without the node
# init would start with no output at all. mknod needs root; /init mounts devtmpfs anyway.
mknod -m 600 "$root/dev/console" c 5 1 2>/dev/null || true
cat >"$root/init" <<INIT
#!/bin/busybox sh
/bin/busybox mount -t devtmpfs devtmpfs /dev 2>/dev/null
/bin/busybox mount -t proc proc /proc
exec >/dev/console 2>&1
/bin/busybox echo
/bin/busybox echo "$marker"
/bin/busybox sync
/bin/busybox poweroff -f
INIT
chmod 755 "$root/init"
(cd "$root" && find . | cpio -o -H newc --owner=0:0 --quiet) | gzip -9 >"$work/initrd.gz"

# panic=-1: a failing init reboots at once, which -no-reboot turns into a quick exit.
cmdline="console=ttyS0,115200 panic=-1"

mkfs.vfat -F 32 -n ORVANEBOOT -C "$work/part.img" $((part_mib * 1024)) >/dev/null

case $kind in
uefi)
  cat >"$work/grub.cfg" <<CFG
set timeout=0
menuentry "orvane boot proof" {
  linux /vmlinuz $cmdline
  initrd /initrd.gz
}
CFG
  mmd -i "$work/part.img" ::/EFI ::/EFI/debian
  mcopy -i "$work/part.img" /usr/lib/shim/shimx64.efi.signed ::/EFI/debian/shimx64.efi
  mcopy -i "$work/part.img" /usr/lib/grub/x86_64-efi-signed/grubx64.efi.signed \
    ::/EFI/debian/grubx64.efi
  mcopy -i "$work/part.img" /usr/lib/shim/mmx64.efi.signed ::/EFI/debian/mmx64.efi
  mcopy -i "$work/part.img" /usr/lib/shim/fbx64.efi.signed ::/EFI/debian/fbx64.efi
  mcopy -i "$work/part.img" /usr/lib/shim/BOOTX64.CSV ::/EFI/debian/BOOTX64.CSV
  # The signed GRUB looks for its configuration under its built-in prefix, /EFI/debian.
  mcopy -i "$work/part.img" "$work/grub.cfg" ::/EFI/debian/grub.cfg
  mcopy -i "$work/part.img" "$kernel" ::/vmlinuz
  mcopy -i "$work/part.img" "$work/initrd.gz" ::/initrd.gz
  truncate -s ${disk_mib}M "$work/disk.raw"
  printf 'label: gpt\nstart=2048, size=%s, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, name="EFI System Partition"\n' \
    "$part_sectors" | sfdisk -q "$work/disk.raw"
  ;;
bios)
  cat >"$work/grub.cfg" <<CFG
set timeout=0
serial --unit=0 --speed=115200
terminal_input serial
terminal_output serial
menuentry "orvane boot proof" {
  linux /boot/vmlinuz $cmdline
  initrd /boot/initrd.gz
}
CFG
  mmd -i "$work/part.img" ::/boot ::/boot/grub
  mcopy -i "$work/part.img" "$work/grub.cfg" ::/boot/grub/grub.cfg
  mcopy -i "$work/part.img" "$kernel" ::/boot/vmlinuz
  mcopy -i "$work/part.img" "$work/initrd.gz" ::/boot/initrd.gz
  # Every module the configuration needs is built in: there is no module directory
  # on the disk for core.img to load from.
  grub-mkimage -O i386-pc -o "$work/core.img" -p '(hd0,msdos1)/boot/grub' \
    biosdisk part_msdos fat normal configfile linux boot serial terminal echo test
  if [ "$(stat -c %s "$work/core.img")" -gt $((2047 * 512)) ]; then
    echo "core.img does not fit before the first partition" >&2
    exit 1
  fi
  truncate -s ${disk_mib}M "$work/disk.raw"
  printf 'label: dos\nstart=2048, size=%s, type=c, bootable\n' "$part_sectors" |
    sfdisk -q "$work/disk.raw"
  # boot.img's code stops before the disk signature and partition table at byte 440.
  # Its built-in defaults (core.img at sector 1, boot drive from the BIOS) are right.
  dd if=/usr/lib/grub/i386-pc/boot.img of="$work/disk.raw" bs=440 count=1 conv=notrunc status=none
  dd if="$work/core.img" of="$work/disk.raw" bs=512 seek=1 conv=notrunc status=none
  ;;
*)
  echo "usage: $0 uefi|bios KERNEL OUTPUT" >&2
  exit 2
  ;;
esac

dd if="$work/part.img" of="$work/disk.raw" bs=1M seek=1 conv=notrunc status=none
mv "$work/disk.raw" "$output"
