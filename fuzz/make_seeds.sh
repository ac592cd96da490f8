#!/usr/bin/env bash
# Writes the seed corpora of the fuzz targets: real documents made by the
# pkgdlv tool (snapshots, security data, frames, the configuration and range
# documents, a download's package.xml and log.xml), plus a few small
# hand-written documents for the shapes the tool does not produce (server
# answers, error reports, odd but valid variants).
#
#   fuzz/make_seeds.sh PKGDLV_TOOL CORPUS_DIR
#
# Everything is written under CORPUS_DIR/<target>/ and a temporary folder
# that is removed at the end.
set -euo pipefail

tool=$(realpath "$1")
corpus=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PKGDLV_HOME="$work/home"
# The tool may be built with the sanitizers; a leak report must not stop the
# seeds from being made (the tests check the tool for leaks).
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0}

targets=(compressed_frame package_document snapshot_document security_data
         server_answer multicast_ranges configuration_document package_log)
for t in "${targets[@]}"; do mkdir -p "$corpus/$t"; done

n=0
# seed TARGET TEXT: one hand-written seed.
seed() { n=$((n + 1)); printf '%s' "$2" >"$corpus/$1/hand-$n"; }
# run ...: the tool, with its output quiet; a failing step is reported, not fatal.
run() { "$tool" "$@" >/dev/null 2>"$work/err" || { echo "make_seeds: pkgdlv $* failed: $(head -c 300 "$work/err")" >&2; return 1; }; }

id="{6F1C2B3A-4D5E-4F60-8172-93A4B5C6D7E8}"

# ---- Snapshots and security data of a small package, signed and unsigned ----
pkg="$work/package"
mkdir -p "$pkg/bin" "$pkg/docs/deep" "$pkg/empty"
head -c 70000 /dev/urandom >"$pkg/bin/tool.bin"
printf 'hello\n' >"$pkg/readme.txt"
: >"$pkg/docs/deep/zero.txt"
printf 'a &amp; b <c>\n' >"$pkg/docs/Notes.md"
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/key.pem" 2>/dev/null
mkdir -p "$work/signed" "$work/plain"
if run snapshot create "$pkg" --id "$id" --version 3 --block-size 16384 --sign-key "$work/key.pem" --out "$work/signed"; then
  cp "$work/signed/snapshot.xml" "$corpus/snapshot_document/signed.xml"
  cp "$work/signed/snapdata.xml" "$corpus/security_data/snapdata.xml"
fi
run snapshot create "$pkg" --id "$id" --version 1 --out "$work/plain" &&
  cp "$work/plain/snapshot.xml" "$corpus/snapshot_document/default-block-size.xml"
seed snapshot_document '<Snapshot id="{6F1C2B3A-4D5E-4F60-8172-93A4B5C6D7E8}" version="1" time="2026-01-01T00:00:00" blockSize="4"><Root size="5"><File name="a" size="5" lastModified="2026-01-01T00:00:00" blockHash="'"$(head -c 64 /dev/zero | base64 -w0)"'"/><Folder name="f"/></Root></Snapshot>'
seed snapshot_document '<S i="{6F1C2B3A-4D5E-4F60-8172-93A4B5C6D7E8}"><R><F n="x" s="1" b="AAAA"/></R></S>'
seed security_data '<SnapshotData id="{6F1C2B3A-4D5E-4F60-8172-93A4B5C6D7E8}" path="/var/pkg"><Security signature="QUJD"/></SnapshotData>'
seed security_data '<SnapshotData><Security/></SnapshotData>'

# ---- Compressed frames: empty, small, one chunk, several chunks ----
: >"$work/empty"
printf '<response><Codebases/></response>' >"$work/small"
seq 1 20000 >"$work/chunks"
for f in empty small chunks; do run frame pack -i "$work/$f" -o "$corpus/compressed_frame/$f.frame" || true; done
[ -f "$work/signed/snapshot.xml" ] && { run frame pack -i "$work/signed/snapshot.xml" -o "$corpus/compressed_frame/snapshot.frame" || true; }

# ---- Server answers: sources, error reports, a compressed and a UTF-16 one ----
answer='<response username="bob" domain="CORP" password="secret" timeoutExceeded="false"><Codebases><SiteQuery url="http://qs/q" resource="r1" type="packageServers"/><Codebase href="http://ps/PS/Share/p" snapshot="http://ps/PS/Share/p/snapshot.xml"/><Codebase unc="\\srv\share\p" codebaseSourceType="qs"/><Codebase url="file:///srv/a%20b/"/></Codebases><package sourceKey="S0VZ" optionalHashCheck="true"/></response>'
seed server_answer "$answer"
seed server_answer '<response number="8004200D"/>'
seed server_answer '<response number="80004005" text="Invalid request"/>'
seed server_answer '<r><Source time="2026-01-01T00:00:00"><Codebase unc="//s/p"/></Source></r>'
printf '%s' "$answer" >"$work/answer"
run frame pack -i "$work/answer" -o "$corpus/server_answer/answer.frame" || true
{ printf '\xff\xfe'; printf '%s' '<response><Codebases><Codebase href="http://x/"/></Codebases></response>' | iconv -f UTF-8 -t UTF-16LE; } \
  >"$corpus/server_answer/utf16.xml"

# ---- The configuration document ----
if "$tool" config get >"$work/config.xml" 2>/dev/null; then cp "$work/config.xml" "$corpus/configuration_document/current.xml"; fi
seed configuration_document '<PackageDelivery workFolder="/data/store" historySize="12" retryDelay="600000" retryMaxDelay="7200000" retryMaxTries="-1" retryMaxTime="4294967295"/>'

# ---- Multicast range documents (first byte 1: listener list, 0: exclusion list) ----
listen='<listenRange><address><start>192.168.0.1</start><end>192.168.0.50</end></address><address><start>10.0.0.7</start><end/></address></listenRange>'
exclude='<exclusionRange><address><start>172.16.0.1</start><end>172.16.255.255</end></address></exclusionRange>'
seed multicast_ranges "1$listen"
seed multicast_ranges "0$exclude"
if run multicast ranges listener --set "$listen" && "$tool" multicast ranges listener >"$work/l.xml" 2>/dev/null; then
  { printf '1'; cat "$work/l.xml"; } >"$corpus/multicast_ranges/listener-written.xml"
fi
if run multicast ranges exclusion --set "$exclude" && "$tool" multicast ranges exclusion >"$work/e.xml" 2>/dev/null; then
  { printf '0'; cat "$work/e.xml"; } >"$corpus/multicast_ranges/exclusion-written.xml"
fi

# ---- Package documents and download history: a download from a folder ----
request="<Package id=\"$id\" name=\"Fuzz seed\" version=\"3\" priority=\"High\" size=\"0\"><Codebases><Codebase unc=\"$pkg\"/></Codebases></Package>"
printf '%s' "$request" >"$work/request.xml"
cp "$work/request.xml" "$corpus/package_document/request.xml"
if timeout 60 "$tool" download "$work/request.xml" --work-folder "$work/store" --quiet --timeout 30 >/dev/null 2>&1; then :; fi
find "$work/store" -name package.xml -exec cp {} "$corpus/package_document/downloaded.xml" \; 2>/dev/null || true
find "$work/store" -name log.xml -exec cp {} "$corpus/package_log/downloaded.xml" \; 2>/dev/null || true
if [ -f "$work/signed/snapshot.xml" ]; then
  { printf '<Package id="%s" version="3" status="pending" fileStore="/var/pkg">' "$id"
    sed '1{/^<?xml/d}' "$work/signed/snapshot.xml"
    sed '1{/^<?xml/d}' "$work/signed/snapdata.xml"
    printf '</Package>'; } >"$corpus/package_document/embedded-snapshot.xml"
fi
seed package_document '<?xml version="1.0" encoding="UTF-8"?><Package id="{00000000-0000-0000-0000-000000000001}" name="a &amp; b" size="3000000" priority="Low" status="retrying" urgentDownload="true" downloadStartSLA="30" enableMulticast="false" minspeed="10"><Source time="2026-01-01T00:00:00"><SiteQuery url="http://qs/q" resource="r" type="codebases"/><Codebase href="http://a/PS/Share/p" snapshot="file:///s%20x.xml"/></Source></Package>'
seed package_document '<Package status="downloading"/>'

seed package_log '<Log id="{X}" attempts="3" successes="1" transferBytes="10" attemptTime="2026-03-01 09:00:03"><History><Download version="2" status="retrying" statusDescr="Server is busy" nextRetry="2026-03-01 10:00:00" transferBytes="4"><Session startTime="2026-03-01 09:00:03" endTime="00:00:00" source="http://ps/x" transferRate="5" transferCache="1" result="-2147213300"/></Download><Download status="valid"/></History></Log>'
seed package_log '<Log id=""/>'

for t in "${targets[@]}"; do
  printf 'make_seeds: %-24s %2d seeds\n' "$t" "$(find "$corpus/$t" -type f | wc -l)"
done
