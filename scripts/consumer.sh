#!/usr/bin/env bash
# Installs the library from the build folder into a scratch prefix, builds the
# example application against it both ways (pkg-config and CMake's
# find_package), and runs both against a virtual token through a private pcscd.
# Usage: scripts/consumer.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${1:-build}

if [ "${KRFS_CONSUMER_INSIDE:-}" != 1 ]; then
  prefix=$(mktemp -d /tmp/krfs-prefix.XXXXXX)
  trap 'rm -rf "$prefix"' EXIT
  echo "== install into $prefix"
  cmake --install "$build" --prefix "$prefix" >/dev/null
  echo "== build the consumer with pkg-config"
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
  # shellcheck disable=SC2046
  cc -std=c99 -Wall -Wextra -Werror examples/consumer/consumer.c \
    $(pkg-config --cflags --libs krfs) -Wl,-rpath,"$prefix/lib" -o "$prefix/consumer-pc"
  echo "== build the consumer with CMake"
  cmake -S examples/consumer -B "$prefix/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$prefix/consumer-build" >/dev/null
  echo "== build the key example (C++ interface) with pkg-config"
  # shellcheck disable=SC2046
  c++ -std=c++17 -Wall -Wextra -Werror examples/keys/keys.cpp \
    $(pkg-config --cflags --libs krfs) -Wl,-rpath,"$prefix/lib" -o "$prefix/keys-pc"
  echo "== build the key example with CMake"
  cmake -S examples/keys -B "$prefix/keys-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$prefix/keys-build" >/dev/null
  KRFS_CONSUMER_INSIDE=1 KRFS_PREFIX="$prefix" unshare --mount --net bash "$0" "$build"
  exit $?
fi

# Inside private namespaces: a pcscd of our own and a virtual Pro token with
# an RSA key and its certificate.
. scripts/lib/private-pcscd.sh
work=$(mktemp -d /tmp/krfs-consumer.XXXXXX)
cleanup() {
  [ -n "${card:-}" ] && kill "$card" 2>/dev/null && wait "$card" 2>/dev/null
  pcscd_stop
  rm -rf "$work"
}
trap cleanup EXIT
pcscd_start "$work"
"$root/$build/vtoken/krfs-vtoken" init --state "$work/t.json" --model pro42 --id 0A0B0C0D >/dev/null
"$root/$build/vtoken/krfs-vtoken" add-key --state "$work/t.json" --bits 1024 >/dev/null
"$root/$build/vtoken/krfs-vtoken" serve --state "$work/t.json" > "$work/vtoken.log" 2>&1 &
card=$!
for _ in $(seq 1 100); do
  "$root/$build/tools/krfs/krfs" readers 2>/dev/null | grep -q token && break
  sleep 0.1
done
for exe in "$KRFS_PREFIX/consumer-pc" "$KRFS_PREFIX/consumer-build/consumer"; do
  echo "== run $(basename "$(dirname "$exe")")/$(basename "$exe")"
  out=$("$exe")
  echo "$out"
  grep -q "identifier: .*0a0b0c0d" <<<"$out"
  grep -q "file 0001: 16 bytes" <<<"$out"
done

krfs="$root/$build/tools/krfs/krfs"
export PIN=1234567890  # the virtual token's default user PIN
hex2bin() { perl -e 'local $/; my $h = <STDIN>; $h =~ s/\s//g; print pack("H*", $h)'; }
"$krfs" keys --json > "$work/keys.json"
sed -n 's/.*"certificate": "\([0-9A-F]*\)".*/\1/p' "$work/keys.json" | head -n 1 | hex2bin > "$work/cert.der"
openssl x509 -inform der -in "$work/cert.der" -pubkey -noout > "$work/pub.pem"
perl -e 'print pack("C*", 0 .. 127)' > "$work/block.bin"  # what the example decrypts
for exe in "$KRFS_PREFIX/keys-pc" "$KRFS_PREFIX/keys-build/keys"; do
  echo "== run $(basename "$(dirname "$exe")")/$(basename "$exe")"
  out=$("$exe" "Virtual PCD 00 00" "$PIN")
  echo "$out"
  grep -q "^container .* size 128 private key yes" <<<"$out"
  # The card's raw RSA, undone with the certificate's public key, is the block.
  sed -n 's/^decrypted with [^:]*: //p' <<<"$out" | hex2bin > "$work/result.bin"
  openssl pkeyutl -verifyrecover -pubin -inkey "$work/pub.pem" -pkeyopt rsa_padding_mode:none \
    -in "$work/result.bin" -out "$work/recovered.bin"
  cmp "$work/block.bin" "$work/recovered.bin"
done

echo "== krfs keys, and krfs decrypt --pkcs1 of a message sealed to the certificate"
"$krfs" keys
key=$("$krfs" keys | awk '/private=yes/ { print $1; exit }')
printf 'a message for the token' > "$work/message"
openssl pkeyutl -encrypt -pubin -inkey "$work/pub.pem" -in "$work/message" -out "$work/sealed"
"$krfs" decrypt --pin-env PIN --pkcs1 --in "$work/sealed" "$key" > "$work/opened"
cmp "$work/message" "$work/opened"
echo "consumer: built both ways and ran against a virtual token; keys decrypted"
