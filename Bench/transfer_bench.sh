#!/usr/bin/env bash
# Measures the file downloader against curl, both fetching from a real Apache httpd on loopback:
# ten 100 MiB files and one 2 GiB file (three runs each, the two taking turns to go first, each
# run after a sync so that neither pays for writing back what the other wrote; medians and the
# downloader's peak memory shown), 10,000 files of 2 KiB one after another, and the sync
# bandwidth limit (20 MiB at 2048 KiB/s, in one file and in eight files fetched at once).
# Usage: Bench/transfer_bench.sh   (as root; builds the release preset)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target transfer_bench >/dev/null
bench=$PWD/build/release/Bench/transfer_bench

work=$(mktemp -d /tmp/ondrel-bench-XXXXXX)
chmod 755 "$work"
port=18480
cleanup() { [ -f "$work/httpd.pid" ] && kill "$(cat "$work/httpd.pid")" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

mkdir -p "$work/www/big" "$work/www/small" "$work/out" "$work/curl" "$work/root/Library/Server"
for i in $(seq 1 10); do head -c $((100 << 20)) /dev/urandom > "$work/www/big/big$i.bin"; done
head -c $((2 << 30)) /dev/urandom > "$work/www/huge.bin"
head -c $((20 << 20)) /dev/urandom > "$work/www/limit.bin"
mkdir -p "$work/www/parts"
for i in $(seq 1 8); do head -c $((20 << 17)) /dev/urandom > "$work/www/parts/part$i.bin"; done
python3 - "$work/www/small" <<'PY'
import os, sys
block = os.urandom(2048)
for i in range(10000):
    with open(os.path.join(sys.argv[1], f"s{i:05}.bin"), "wb") as f:
        f.write(block)
PY
cat > "$work/httpd.conf" <<CONF
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
ServerName localhost
User _ondrel
Group _ondrel
Listen 127.0.0.1:$port
PidFile $work/httpd.pid
ErrorLog $work/error.log
KeepAlive On
MaxKeepAliveRequests 0
DocumentRoot "$work/www"
<Directory "$work/www">
    Require all granted
</Directory>
CONF
apache2 -d "$work" -f "$work/httpd.conf" -k start
for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$port/limit.bin" && break; sleep 0.1; done

base="http://127.0.0.1:$port"
for i in $(seq 1 10); do echo "$base/big/big$i.bin"; done > "$work/big.list"
echo "$base/huge.bin" > "$work/huge.list"
for i in $(seq -f %05g 0 9999); do echo "$base/small/s$i.bin"; done > "$work/small.list"
echo "$base/limit.bin" > "$work/limit.list"
for i in $(seq 1 8); do echo "$base/parts/part$i.bin"; done > "$work/parts.list"

curl_list() {  # fetches a URL list in one curl process, which reuses its connection
  sed "s|.*/\(.*\)|url = \"&\"\noutput = \"$work/curl/\1\"|" "$1" > "$work/curl.config"
  local start end
  start=$(date +%s.%N)
  curl -s -K "$work/curl.config"
  end=$(date +%s.%N)
  python3 -c "print(f'curl: {$end - $start:.3f} s')"
}

export ONDREL_ROOT="$work/root"
# timed NAME COMMAND...: after a sync, runs COMMAND and appends its seconds and peak memory (KB)
# to NAME_s and NAME_kb; the fetched files are removed afterwards.
timed() {
  local name=$1
  shift
  sync
  /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null
  read -r seconds kilobytes <"$work/time"
  eval "${name}_s+=($seconds)"
  eval "${name}_kb+=($kilobytes)"
  rm -f "$work/out"/* "$work/curl"/*
}
median() { printf '%s\n' "$@" | sort -g | sed -n "$((($# + 1) / 2))p"; }
# compare TITLE LIST: curl and the downloader fetch LIST three times each, taking turns to go first.
compare() {
  curl_s=() curl_kb=() ondrel_s=() ondrel_kb=()
  sed "s|.*/\(.*\)|url = \"&\"\noutput = \"$work/curl/\1\"|" "$2" >"$work/curl.config"
  for round in 1 2 3; do
    if [ $((round % 2)) -eq 1 ]; then
      timed curl curl -s -K "$work/curl.config"
      timed ondrel "$bench" "$2" "$work/out"
    else
      timed ondrel "$bench" "$2" "$work/out"
      timed curl curl -s -K "$work/curl.config"
    fi
  done
  local mine theirs
  mine=$(median "${ondrel_s[@]}")
  theirs=$(median "${curl_s[@]}")
  echo "== $1: Ondrel $mine s, curl $theirs s ($(python3 -c "print(f'{$mine / $theirs:.2f}')")x)," \
    "peak memory Ondrel $(($(median "${ondrel_kb[@]}") / 1024)) MB, curl $(($(median "${curl_kb[@]}") / 1024)) MB"
}
compare "ten files of 100 MiB" "$work/big.list"
compare "one file of 2 GiB" "$work/huge.list"
echo "== 10,000 files of 2 KiB"
curl_list "$work/small.list"
"$bench" "$work/small.list" "$work/out"
echo "== one file of 20 MiB at a sync limit of 2048 KiB/s (expected 10 s)"
"$bench" "$work/limit.list" "$work/out" 2048
echo "== eight files of 2.5 MiB, all at once, at a sync limit of 2048 KiB/s (expected 10 s)"
"$bench" "$work/parts.list" "$work/out" 2048 8
echo "== peak memory for one 100 MiB file versus one 2 KiB file"
head -1 "$work/big.list" > "$work/one.list"
/usr/bin/time -f "100 MiB: max RSS %M KB" "$bench" "$work/one.list" "$work/out" >/dev/null
head -1 "$work/small.list" > "$work/one.list"
/usr/bin/time -f "2 KiB: max RSS %M KB" "$bench" "$work/one.list" "$work/out" >/dev/null
