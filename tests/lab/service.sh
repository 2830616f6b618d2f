# The lab's PC with a whole Debian on it: systemd, and the packages of this tree, which are installed, upgraded and
# removed in it. Its release is that of this machine, or the one that $KORU_LAB_SUITE names.
# Sourced by scripts/lab, which says what is set and which functions are defined here.
source tests/lab/x86.sh

packages=(qemu-system-x86 busybox-static kmod cpio mmdebstrap e2fsprogs)
preset=
programs=()
modules=(virtio_pci virtio_blk crc32c_generic ext4 i2c-dev i2c-stub)
checks=47
patience=1500 # seconds; a whole system that nothing accelerates
suite=${KORU_LAB_SUITE:-$(release_name)}
debs=build/packages/$suite

eval "prepare_kernel() $(declare -f prepare | tail -n +2)"

# What the packages depend on besides each other, without versions: of alternatives the first.
dependencies() {
  local deb
  for deb in "$debs"/*.deb; do dpkg-deb -f "$deb" Depends; done |
    tr ',' '\n' | sed 's/[(|].*//; s/ //g' | grep -vE '^(|.*koru.*|libboost.*-dev|libfmt-dev)$' | sort -u
}

# The system without the packages; what is wanted in it is a part of its name.
prepare() {
  local include log=$top/build/logs/lab-service-base.log
  prepare_kernel || return 1
  [ "$(cat "$debs/commit" 2>/dev/null)" = "$(git rev-parse HEAD)" ] || scripts/package "$suite" || exit 1
  include=$(echo systemd-sysv udev dbus i2c-tools kmod procps $(dependencies) | tr ' ' ',')
  base=$kept/lab-service-$suite
  [ "$(cat "$base.complete" 2>/dev/null)" != "$include" ] || return 0
  say "making a $suite with systemd"
  "${as_root[@]}" rm -rf --one-file-system "$base" "$base.complete"
  "${as_root[@]}" mkdir -p "$kept"
  quietly "$log" "${as_root[@]}" mmdebstrap --variant=minbase --include="$include" "$suite" "$base" "$(mirror)" ||
    return 1
  "${as_root[@]}" tee "$base.complete" <<<"$include" >/dev/null
}

# The same packages under a higher version, as the next ones.
next_version() {
  local deb work=$lab/next
  for deb in "$1"/*.deb; do
    rm -rf "$work"
    dpkg-deb -R "$deb" "$work"
    sed -i -E "s/^(Version: .*)/\1+next/; s/(koruregfile0 \(= [^)]*)\)/\1+next)/" "$work/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$work" "$2" >/dev/null
  done
}

fill() {
  local root=$lab/root
  cp "$(command -v busybox)" "$tree/bin/"
  rm -rf --one-file-system "$root"
  cp -a "$base" "$root"
  mkdir -p "$root/lab/debs" "$root/lab/next"
  cp "$debs"/{libkoruregfile0,koruregfile-tools,korud}_*.deb "$root/lab/debs/"
  next_version "$root/lab/debs" "$root/lab/next"
  cp tests/lab/service-checks "$root/lab/"
  cp tests/lab/service-checks.service "$root/etc/systemd/system/"
  ln -sf ../service-checks.service "$root/etc/systemd/system/multi-user.target.wants/"
  # The console is for the checks alone.
  ln -sf /dev/null "$root/etc/systemd/system/serial-getty@ttyS0.service"
  echo service >"$root/etc/hostname"
  rm -f "$lab/root.img"
  quietly build/logs/lab-service-image.log mke2fs -q -t ext4 -d "$root" "$lab/root.img" 2G
  rm -rf --one-file-system "$root"
}

boot() {
  truncate -s 0 "$bar"
  truncate -s 1M "$bar"
  run -accel tcg -M q35 -m 1024 -smp 2 -no-reboot -nodefaults -display none -serial stdio \
    -drive "file=$lab/root.img,format=raw,if=virtio" \
    -object "memory-backend-file,id=bar,share=on,mem-path=$bar,size=1M" -device ivshmem-plain,memdev=bar \
    -kernel "$kernel/boot/vmlinuz-$version" -initrd "$lab/initramfs.gz" \
    -append "console=ttyS0 quiet panic=-1 no_timer_check systemd.show_status=0 systemd.log_target=journal"
}

look_from_outside() { host_finds 5 600dbeef "the service, with the drop-in,"; }
