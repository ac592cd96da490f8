#!/usr/bin/env bash
# A short tour of what the pkgdlv tool does, on its embedded defaults, in a
# data folder of its own (PKGDLV_HOME, default: ./demo-home).
set -euo pipefail
cd "$(dirname "$0")/.."
command -v pkgdlv >/dev/null || export PATH="$PWD/build-release:$PATH"

export PKGDLV_HOME=${PKGDLV_HOME:-$PWD/demo-home}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
step() { printf '\n== %s\n' "$*"; }

step "Delivery settings on a fresh store (each default is written at its first read)"
pkgdlv settings defaults

step "The configuration document"
pkgdlv config get

step "A log line in the agent log"
pkgdlv log write --component Demo "demonstration started"
echo "agent log: $(pkgdlv log path)"

step "Compressed data frame: pack and unpack a document"
head -c 300000 /usr/share/common-licenses/GPL-3 >"$work/doc.txt" 2>/dev/null || seq 1 60000 >"$work/doc.txt"
pkgdlv frame pack -i "$work/doc.txt" -o "$work/doc.frame"
pkgdlv frame unpack -i "$work/doc.frame" -o "$work/doc.out"
cmp -s "$work/doc.txt" "$work/doc.out" && echo "$(stat -c %s "$work/doc.txt") bytes -> $(stat -c %s "$work/doc.frame") bytes framed, unpacked identically"

if pkgdlv snapshot --help >/dev/null 2>&1; then
  step "A signed snapshot of a package folder"
  mkdir -p "$work/package/bin" "$work/out"
  head -c 5000000 /dev/urandom >"$work/package/bin/tool.bin"
  echo "hello" >"$work/package/readme.txt"
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/key.pem" 2>/dev/null
  id="{6F1C2B3A-4D5E-4F60-8172-93A4B5C6D7E8}"
  pkgdlv snapshot create "$work/package" --id "$id" --version 1 --block-size 1048576 \
    --sign-key "$work/key.pem" --out "$work/out"
  pkgdlv snapshot show "$work/out/snapshot.xml"
  key=$(pkgdlv snapshot create "$work/package" --id "$id" --version 1 --block-size 1048576 --sign-key "$work/key.pem" --out "$work/out" --print-key | tail -n 1)
  pkgdlv snapshot verify "$work/out/snapshot.xml" --snapdata "$work/out/snapdata.xml" --key "$key"

  step "Which blocks are good: the intact folder, then one changed byte"
  pkgdlv check "$work/package" --snapshot "$work/out/snapshot.xml"
  printf 'X' | dd of="$work/package/bin/tool.bin" bs=1 seek=2500000 conv=notrunc status=none
  rc=0; pkgdlv check "$work/package" --snapshot "$work/out/snapshot.xml" || rc=$?
  echo "(exit code $rc: files need updating)"

  step "Fetching a snapshot as the engine does: a signed snapshot file, then a bare source folder"
  pkgdlv snapshot fetch --url "$work/out/snapshot.xml" --package "$id" --version 1 -o "$work/fetched"
  pkgdlv snapshot verify "$work/fetched/snapshot.xml" --snapdata "$work/fetched/snapdata.xml" --key "$key"
  pkgdlv snapshot fetch --dir "$work/package" --package "$id" -o "$work/listed"
fi

step "The engine's queue: three requests left in a work folder, in download order"
for spec in "1 Normal 3000000 pending" "2 High 500000 retrying" "3 Normal 1000 downloading"; do
  set -- $spec
  pid="{00000000-0000-0000-0000-00000000000$1}"
  mkdir -p "$work/queue/$pid"
  printf '<Package id="%s" name="demo %s" size="%s" priority="%s" status="%s"/>' "$pid" "$1" "$3" "$2" "$4" \
    > "$work/queue/$pid/package.xml"
done
pkgdlv queue --work-folder "$work/queue"

step "Done"
echo "data folder: $PKGDLV_HOME"
