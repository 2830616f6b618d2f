# The lab's board: Debian's kernel for armhf on an i.MX6, whose controllers are full masters, and with
# chips that have their registers on the bus in ways of their own. Sourced by scripts/lab, which says
# what is set and which functions are defined here.

packages=(qemu-system-arm binutils cpio kmod)
emulator=qemu-system-arm
preset=armhf
programs=(korureg korud)
modules=(imx2_wdt gpio-mxc i2c-dev i2c-imx spi-imx)
checks=122
foreign=$kept/lab-armhf
orders=$lab/orders

prepare() {
  unpacked lab-armhf armhf linux-image-armmp busybox-static i2c-tools || return 1
  scripts/sysroot armhf || return 1
  kernel=$foreign
  version=$(basename "$kernel"/boot/vmlinuz-*)
  version=${version#vmlinuz-}
  [ -e "$kernel/lib/modules/$version/modules.dep" ] || "${as_root[@]}" depmod -b "$kernel" "$version"
}

# Of a program that cannot run here: what it names, and what that names, in turn.
libraries_of() {
  local name path
  while read -r name; do
    path=$(find build/armhf/lib build/sysroot/armhf/{,usr/}lib/arm-linux-gnueabihf \
      "$foreign"/{,usr/}lib/arm-linux-gnueabihf -maxdepth 1 -name "$name" -print -quit 2>/dev/null)
    [ -n "$path" ] || { echo "error: $1 needs $name, which is nowhere" >&2; return 1; }
    [ -e "$tree/lib/$name" ] || { echo "$path" && libraries_of "$path"; }
  done < <(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
}

fill() {
  local tool paths=()
  cp examples/boards/tmp105/registers.csv "$tree/tmp105.csv"
  cp examples/boards/at24c256/registers.csv "$tree/eeprom.csv"
  printf '%s\n' number,name,type,writeable,width 2,PSC0,cfg,true,8 3,PWM0,cfg,true,8 \
    6,ALL_LS,cfg,true,32 6,LS0,cfg,true,8 7,LS1,cfg,true,8 8,LS2,cfg,true,8 9,LS3,cfg,true,8 >"$tree/pca9552.csv"
  printf '%s\n' number,name,type,writeable,width 0,JEDEC_ID,const,false,24 >"$tree/flash.csv"
  find "$foreign" -path '*bin/busybox' -exec cp {} "$tree/bin/" \;
  for tool in i2ctransfer i2cdetect; do
    paths+=("$(find "$foreign/usr" -path "*bin/$tool")")
  done
  copy_programs tools "${paths[@]}"
}

boot() {
  rm -f "$orders".in "$orders".out
  mkfifo "$orders".in "$orders".out
  exec {orders_in}<>"$orders".in {orders_out}<>"$orders".out
  echo '{"execute": "qmp_capabilities"}' >&"$orders_in"
  run -M sabrelite -smp 1 -m 512 -accel tcg -display none -serial null -serial stdio -no-reboot \
    -chardev pipe,id=orders,path="$orders" -mon orders,mode=control \
    -device tmp105,id=thermometer,bus=i2c-bus.0,address=0x48 \
    -device tmp105,bus=i2c-bus.0,address=0x49 -device pca9552,bus=i2c-bus.0,address=0x60 \
    -device at24c-eeprom,rom-size=65536,bus=i2c-bus.1,address=0x50 \
    -kernel "$kernel/boot/vmlinuz-$version" -initrd "$lab/initramfs.gz" \
    -dtb "$(find "$kernel/usr/lib" -name imx6q-sabrelite.dtb)" \
    -append "console=ttymxc1,115200 panic=-1 quiet"
}

# "outside: temperature 25000", in thousandths of a degree.
asked() {
  local path=/machine/peripheral/thermometer
  [[ $1 =~ ^outside:\ temperature\ (-?[0-9]+)$ ]] || return 0
  echo "{\"execute\": \"qom-set\", \"arguments\": {\"path\": \"$path\", \"property\": \"temperature\"," \
    "\"value\": ${BASH_REMATCH[1]}}}" >&"$orders_in"
}

look_from_outside() {
  # The answers to the orders, for whoever wonders.
  timeout 1 cat <&"$orders_out" >"$lab/orders.log" || true
}
