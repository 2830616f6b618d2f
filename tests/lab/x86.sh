# The lab's PC: Debian's own kernel on the machine q35, with i2c-stub, i2c-i801, ivshmem,
# edu and spi-butterfly.
# Sourced by scripts/lab, which says what is set and which functions are defined here.

packages=(qemu-system-x86 busybox-static i2c-tools cpio kmod)
emulator=qemu-system-x86_64
preset=release
programs=(korureg korud ConformanceTest)
modules=(i2c-dev i2c-stub i2c-i801 parport_pc spidev spi-butterfly)
checks=270
bar=$lab/bar

newest_kernel() {
  apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ { print $2; exit }'
}

# The newest kernel that apt offers, unpacked and not installed.
prepare() {
  local package
  package=$(newest_kernel)
  [ -n "$package" ] || { quietly build/logs/lab-apt.log apt update && package=$(newest_kernel); }
  [ -n "$package" ] || return 1
  version=${package#linux-image-}
  kernel=$lab/kernel/$version
  [ -e "$kernel/complete" ] && return
  say "unpacking $package"
  rm -rf "$lab/kernel"
  mkdir -p "$kernel"
  local log=$top/build/logs/lab-apt.log
  (cd "$lab/kernel" && quietly "$log" apt-get -qq download "$package" &&
    dpkg-deb -x "$package"_*.deb "$version" && rm "$package"_*.deb) || return 1
  depmod -b "$kernel" "$version"
  touch "$kernel/complete"
}

libraries_of() { ldd "$1" | grep -oE '/[^ ]+'; }

fill() {
  local tool paths=()
  printf '%s\n' number,name,type,writeable,width 258,wide,cfg,true,32 32,narrow,cfg,true,16 \
    255,last,cfg,true,16 64,host,cfg,true,32 300,kept,cfg,true,32 48,small,cfg,true,8 \
    0,id,const,false,32 1,live4,cfg,true,32 4,live,cfg,true,32 8,fact,ctl,true,32 >"$tree/map.csv"
  cp "$(command -v busybox)" "$tree/bin/"
  for tool in i2cget i2cset i2cdump i2cdetect flock; do paths+=("$(PATH=$PATH:/usr/sbin command -v "$tool")"); done
  copy_programs tools "${paths[@]}"
  mkdir -p "$tree/lib64"
  mv "$tree"/lib/ld-linux* "$tree/lib64/"
}

boot() {
  truncate -s 0 "$bar"
  truncate -s 1M "$bar"
  # What the guest is to find at register 64 of the window: 0x600df00d, low byte first.
  printf '\x0d\xf0\x0d\x60' | dd of="$bar" bs=1 seek=256 conv=notrunc status=none
  run -accel tcg -M q35 -m 512 -no-reboot -nodefaults -display none -serial stdio -parallel null \
    -object "memory-backend-file,id=bar,share=on,mem-path=$bar,size=1M" \
    -device ivshmem-plain,memdev=bar -device edu \
    -kernel "$kernel/boot/vmlinuz-$version" -initrd "$lab/initramfs.gz" \
    -append "console=ttyS0 quiet panic=-1 no_timer_check"
}

asked() { :; }

# host_finds REGISTER VALUE PROGRAM: in the window's backing file.
host_finds() {
  if [ "$(od -An -tx4 -j $(($1 * 4)) -N 4 "$bar" | tr -d ' ')" = "$2" ]; then
    echo "ok: ivshmem: the host finds in the backing file what $3 wrote"
  else
    echo "FAILED: ivshmem: the host does not find in the backing file what $3 wrote"
    failed=1
  fi
}
look_from_outside() {
  host_finds 258 cafe1234 korureg
  host_finds 300 600dbeef korud
}
