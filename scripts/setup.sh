#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the demo need,
# only those that are missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config make
  pcscd libpcsclite-dev vsmartcard-vpcd
  libutfcpp-dev libssl-dev nlohmann-json3-dev libcli11-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  iproute2 util-linux procps openssl
  libfuse3-dev fuse3
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# The packaged pcscd may be started by the system; our tests run their own in
# private namespaces and never need it.
