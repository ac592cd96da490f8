#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, fuzz,
# measure coverage and benchmark.
# Idempotent: packages already present are left as they are. Run as root.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  zlib1g-dev libxml2-dev libxml2-utils libssl-dev openssl
  libcurl4-openssl-dev curl libsqlite3-dev sqlite3
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libcpp-httplib-dev nginx-light
  libsmbclient-dev samba
  clang libfuzzer-14-dev gcovr
  aria2
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run this script as root" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
