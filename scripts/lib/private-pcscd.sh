# Functions for running a private pcscd with one vpcd channel inside the
# current (private) mount and network namespaces. Source it; call
# pcscd_start DIR, then pcscd_stop. Used by the demo.

pcscd_start() {
  local dir=$1
  mount --make-rprivate / 2>/dev/null || true
  mkdir -p /run/pcscd
  mount -t tmpfs tmpfs /run/pcscd
  ip link set lo up
  mkdir -p "$dir/reader.conf.d"
  cat > "$dir/reader.conf.d/vpcd" <<CONF
FRIENDLYNAME "Virtual PCD"
DEVICENAME   /dev/null:0x8C7B
LIBPATH      /usr/lib/pcsc/drivers/serial/libifdvpcd.so
CHANNELID    0x8C7B
CONF
  pcscd --foreground -c "$dir/reader.conf.d" > "$dir/pcscd.log" 2>&1 &
  PCSCD_PID=$!
  # Ready when the socket answers.
  for _ in $(seq 1 100); do
    [ -S /run/pcscd/pcscd.comm ] && return 0
    sleep 0.1
  done
  echo "pcscd did not start; its log:" >&2
  cat "$dir/pcscd.log" >&2
  return 1
}

pcscd_stop() {
  if [ -n "${PCSCD_PID:-}" ]; then
    kill "$PCSCD_PID" 2>/dev/null || true
    wait "$PCSCD_PID" 2>/dev/null || true
    PCSCD_PID=
  fi
}
