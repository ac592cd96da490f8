#!/usr/bin/env bash
# A real download from end to end, all on this machine:
#   1. a demonstration package of generated files (about 300 MiB), with a
#      snapshot signed by a key made on the spot;
#   2. nginx serving it on 127.0.0.1 on a free port, from a generated
#      configuration (stopped when the script ends);
#   3. a request document naming that package server and the key;
#   4. pkgdlv download, then pkgdlv history and pkgdlv check on the result;
#   5. one block of one file damaged, and pkgdlv download again: only the
#      damaged file is fetched, as nginx's access log shows.
# Data in PKGDLV_HOME (default ./demo-home); the package files in
# ./demo-home/publisher. PKGDLV_DEMO_MIB sets the package size.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v pkgdlv >/dev/null || export PATH="$PWD/build-release:$PATH"

export PKGDLV_HOME=${PKGDLV_HOME:-$PWD/demo-home}
size_mib=${PKGDLV_DEMO_MIB:-300}
package_id='{6D2F1A7C-3B4E-4C5D-9E8F-0A1B2C3D4E5F}'
publisher="$PKGDLV_HOME/publisher"
site="$publisher/site"
server="$publisher/nginx"
step() { printf '\n== %s\n' "$*"; }

step "1. A demonstration package of ${size_mib} MiB, signed with a new key"
rm -rf "$publisher"
mkdir -p "$site/demo/tools" "$site/demo/data" "$site/snapshot" "$server"
# Files of several sizes: one large, a few medium, some small.
big=$((size_mib / 2)) medium=$((size_mib / 8))
head -c "$((big * 1048576))" /dev/urandom >"$site/demo/data/archive.bin"
for i in 1 2 3; do head -c "$((medium * 1048576))" /dev/urandom >"$site/demo/data/part$i.bin"; done
for i in $(seq 1 20); do head -c "$((RANDOM * 8))" /dev/urandom >"$site/demo/tools/tool$i.dat"; done
echo "demonstration package made by pkgdlv's download demo" >"$site/demo/README.txt"
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$publisher/signing-key.pem" 2>/dev/null
public_key=$(pkgdlv snapshot create "$site/demo" --id "$package_id" --version 1 \
  --sign-key "$publisher/signing-key.pem" --out "$site/snapshot" --print-key | tail -n 1)
pkgdlv snapshot show "$site/snapshot/snapshot.xml" | tail -n 1

step "2. nginx serves it on 127.0.0.1"
start_nginx() {
  local port user=""
  [ "$(id -u)" -eq 0 ] && user="user root;"  # workers could not read a root-owned folder otherwise
  for _ in $(seq 1 20); do
    port=$((20000 + RANDOM % 40000))
    cat >"$server/nginx.conf" <<EOF
$user
worker_processes 1;
pid $server/nginx.pid;
error_log $server/error.log warn;
events { worker_connections 64; }
http {
  default_type application/octet-stream;
  types { text/xml xml; }
  sendfile on;
  keepalive_requests 100000;
  log_format sent '\$request_method \$uri \$status \$body_bytes_sent';
  access_log $server/access.log sent;
  client_body_temp_path $server/body; proxy_temp_path $server/proxy; fastcgi_temp_path $server/fastcgi;
  uwsgi_temp_path $server/uwsgi; scgi_temp_path $server/scgi;
  server { listen 127.0.0.1:$port; root $site; }
}
EOF
    if nginx -c "$server/nginx.conf" -p "$server" -e "$server/error.log" 2>/dev/null; then
      echo "$port"
      return 0
    fi
  done
  echo "download-demo: nginx could not start (see $server/error.log)" >&2
  return 1
}
port=$(start_nginx)
trap 'nginx -c "$server/nginx.conf" -p "$server" -e "$server/error.log" -s quit 2>/dev/null || true' EXIT
base="http://127.0.0.1:$port"
echo "package server: $base/demo (snapshot $base/snapshot/snapshot.xml)"

step "3. The request document"
cat >"$publisher/request.xml" <<EOF
<Package id="$package_id" name="demo" version="1" priority="High" sourceKey="$public_key">
  <Source>
    <Codebase href="$base/demo" snapshot="$base/snapshot/snapshot.xml"/>
  </Source>
</Package>
EOF
cat "$publisher/request.xml"

served_bytes() { awk '{ sum += $4 } END { print sum + 0 }' "$server/access.log"; }

step "4. pkgdlv download"
# A package left by an earlier run of this script is checked and repaired
# like any other; start from an empty folder for a clean demonstration.
rm -rf "$(pkgdlv workfolder)/$package_id"
: >"$server/access.log"
pkgdlv download "$publisher/request.xml"
folder="$(pkgdlv workfolder)/$package_id"
echo "nginx sent $(served_bytes) bytes in $(wc -l <"$server/access.log") requests"

step "pkgdlv history"
pkgdlv history "$folder"

step "pkgdlv check"
pkgdlv check "$folder" --snapshot "$folder/snapshot.xml"

step "5. One block of data/part2.bin damaged, and pkgdlv download again"
printf 'damaged' | dd of="$folder/data/part2.bin" bs=1 seek=3000000 conv=notrunc status=none
pkgdlv check "$folder" --snapshot "$folder/snapshot.xml" || true
: >"$server/access.log"
pkgdlv download "$publisher/request.xml"
echo "the repair fetched $(served_bytes) bytes (data/part2.bin is $(stat -c %s "$site/demo/data/part2.bin") bytes," \
  "the package $(du -sb "$site/demo" | cut -f1) bytes):"
awk '{ n[$2]++; b[$2] += $4 } END { for (f in n) printf "  %s: %d requests, %d bytes\n", f, n[f], b[f] }' "$server/access.log"
pkgdlv check "$folder" --snapshot "$folder/snapshot.xml"
cmp "$folder/data/part2.bin" "$site/demo/data/part2.bin" && echo "data/part2.bin matches the publisher's file again"
