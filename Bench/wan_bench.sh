#!/usr/bin/env bash
# Measures ondrd_syncd across a wide-area link: the sample upstream (Apache on loopback) behind
# Bench/delay_proxy.py, which makes every connection wait one round trip and delivers every chunk
# half a round trip late each way. For each round trip, on a fresh mirror in automatic mode:
# - the first pass against curl --parallel --parallel-max 16 and aria2c -j 16 fetching the same
#   URL list through the same proxy;
# - a steady pass (nothing changed upstream) against curl fetching the same requests in full,
#   the third steady pass (what a running server does every day) against the same, how many of
#   the pass's requests were answered 304, and the third against its bound: every request one
#   round trip, 80 at once (the pass's limits), after one connection set-up;
# - the peak memory of each;
# - at the first round trip, one 2 GiB file fetched by the downloader against curl, and a 200 MiB
#   file through a proxy that breaks every connection after 64 MiB, fetched again until whole
#   (each try continues where the last stopped), with the bytes received in all.
# Usage: Bench/wan_bench.sh [products] [round trip ms]...
#        (as root; default 500 products, 50 and 200 ms; BANDWIDTH=bytes/s caps the link;
#        TLS=h2 serves the upstream over HTTPS with HTTP/2, TLS=http1 over HTTPS without it)
products="${1:-500}"
round_trips=("${@:2}")
[ "${#round_trips[@]}" -gt 0 ] || round_trips=(50 200)
upstream_port=18496 # the proxy: every URL of the sample names it
serve_port=18497    # the upstream's Apache
mirror_port=18498
work_prefix=ondrel-wan-bench
[ -z "${TLS:-}" ] || scheme=https
source "$(dirname "$0")/automatic_mirror.sh"
[ -n "${ONDREL_BUILD:-}" ] || cmake --build --preset release --target transfer_bench >/dev/null
transfer=$build/Bench/transfer_bench
requests="$work/upstream/.sample-upstream/access.log"
trust=()
if [ -n "${TLS:-}" ]; then
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 \
    -addext subjectAltName=IP:127.0.0.1 -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
  serve_options=(--tls-certificate "$work/cert.pem" --tls-key "$work/key.pem")
  [ "$TLS" = h2 ] || serve_options+=(--http1-only)
  export ONDREL_CA_BUNDLE="$work/cert.pem"
  trust=(--cacert "$work/cert.pem")
fi

if ! command -v aria2c >/dev/null; then
  apt-get install -y -qq --no-install-recommends aria2 >/dev/null
fi

proxy_pid=
stop_proxy() { if [ -n "$proxy_pid" ]; then kill "$proxy_pid" 2>/dev/null || true; fi; }
trap 'stop_proxy; cleanup' EXIT
start_proxy() {
  stop_proxy
  python3 Bench/delay_proxy.py --listen "$upstream_port" --target "$serve_port" \
    --rtt-ms "$1" --bandwidth "${BANDWIDTH:-0}" &
  proxy_pid=$!
  for _ in $(seq 50); do
    curl -s -k -o /dev/null "$base/" && return
    sleep 0.1
  done
  echo "the delay proxy did not start" >&2
  exit 1
}

# requested_urls STATUS...: the URLs the upstream answered with one of these statuses.
requested_urls() {
  awk -v base="$base" -v statuses="$*" \
    'BEGIN { split(statuses, s, " "); for (i in s) ok[s[i]] = 1 } $1 == "GET" && ($3 in ok) {print base $2}' \
    "$requests"
}
curl_parallel() {
  sed 's|.*|url = "&"\noutput = "/dev/null"|' "$2" >"$work/curl.config"
  measure "$1" curl -sS ${trust[@]+"${trust[@]}"} --parallel --parallel-max 16 \
    -K "$work/curl.config"
}
aria2_parallel() {
  awk '{print $0 "\n  out=" NR}' "$2" >"$work/aria2.list"
  rm -rf "$work/aria2"
  measure "$1" aria2c -q -j 16 -i "$work/aria2.list" -d "$work/aria2" --allow-overwrite=true \
    --auto-file-renaming=false --file-allocation=none ${TLS:+--ca-certificate="$work/cert.pem"}
  rm -rf "$work/aria2"
}

serve_port=$serve_port start_automatic_mirror "$products"
"$ctl" web stop >/dev/null

table=()
for rtt in "${round_trips[@]}"; do
  start_proxy "$rtt"
  export ONDREL_ROOT="$work/mirror-$rtt"
  configure_automatic_mirror

  : >"$requests"
  measure first_pass "$syncd" --once
  requested_urls 200 >"$work/first.list"
  curl_parallel first_curl "$work/first.list"
  aria2_parallel first_aria2 "$work/first.list"

  : >"$requests"
  measure steady_pass "$syncd" --once
  requested_urls 200 304 >"$work/steady.list"
  unchanged=$(awk '$1 == "GET" && $3 == 304' "$requests" | wc -l)
  curl_parallel steady_curl "$work/steady.list"
  # The first steady pass turns every product from new to recurring; from the third on, a pass
  # is what a running server does every day.
  measure later_pass "$syncd" --once
  measure settled_pass "$syncd" --once
  "$ctl" web stop >/dev/null

  table+=("$(row "$rtt ms: first pass, $(wc -l <"$work/first.list") files (s)" "$first_pass_s" \
    "$first_curl_s" "$(ratio "$first_pass_s" "$first_curl_s")")")
  table+=("$(row "$rtt ms: first pass, aria2c -j 16 (s)" "" "$first_aria2_s" \
    "$(ratio "$first_pass_s" "$first_aria2_s")")")
  table+=("$(row "$rtt ms: steady pass, $(wc -l <"$work/steady.list") requests (s)" \
    "$steady_pass_s" "$steady_curl_s" "$(ratio "$steady_pass_s" "$steady_curl_s")")")
  table+=("$(row "$rtt ms: settled steady pass, the third (s)" "$settled_pass_s" \
    "$steady_curl_s" "$(ratio "$settled_pass_s" "$steady_curl_s")")")
  table+=("$(row "$rtt ms: steady pass, answered 304" "$unchanged" "" "")")
  # What the link allows: every request one round trip, as many at once as the pass runs
  # (16 downloads and 64 conditional requests), after one connection set-up.
  bound=$(python3 -c "print(f'{$(wc -l <"$work/steady.list") * $rtt / 1000 / 80 + $rtt / 1000:.2f}')")
  table+=("$(row "$rtt ms: settled steady pass against its bound (s)" "$settled_pass_s" \
    "$bound" "$(ratio "$settled_pass_s" "$bound")")")
  table+=("$(row "$rtt ms: peak memory, first pass (MB)" "$((first_pass_kb / 1024))" \
    "$((first_curl_kb / 1024)) / $((first_aria2_kb / 1024))" "")")
  table+=("$(row "$rtt ms: peak memory, steady pass (MB)" "$((steady_pass_kb / 1024))" \
    "$((steady_curl_kb / 1024))" "")")
done

# Large files at the first round trip, with the downloader alone (transfer_bench): a 2 GiB file
# against curl, and a 200 MiB file through a proxy that breaks every connection after 64 MiB,
# fetched again until whole: what was received in all against the file's size.
rtt=${round_trips[0]}
mkdir -p "$work/upstream/content/large" "$work/large"
head -c $((2 << 30)) /dev/urandom >"$work/upstream/content/large/huge.bin"
head -c $((200 << 20)) /dev/urandom >"$work/upstream/content/large/cut.bin"
chmod -R a+rX "$work/upstream/content/large"
sync
export ONDREL_ROOT="$work/mirror-$rtt"
start_proxy "$rtt"
echo "$base/content/large/huge.bin" >"$work/huge.list"
# Three runs each, taking turns to go first, each after a sync: neither pays for writing back
# what the other wrote.
huge_runs=() curl_runs=() huge_kb=()
for round in 1 2 3; do
  for side in $([ $((round % 2)) -eq 1 ] && echo "ondrel curl" || echo "curl ondrel"); do
    sync
    if [ "$side" = ondrel ]; then
      measure huge_ondrel "$transfer" "$work/huge.list" "$work/large"
      huge_runs+=("$huge_ondrel_s") huge_kb+=("$huge_ondrel_kb")
    else
      measure huge_curl curl -sS ${trust[@]+"${trust[@]}"} -o "$work/large/huge.bin" \
        "$base/content/large/huge.bin"
      curl_runs+=("$huge_curl_s")
    fi
    rm -f "$work/large"/*
  done
done
huge_ondrel_s=$(median "${huge_runs[@]}")
huge_curl_s=$(median "${curl_runs[@]}")
huge_ondrel_kb=$(median "${huge_kb[@]}")
table+=("$(row "$rtt ms: one file of 2 GiB, median of 3 (s)" "$huge_ondrel_s" "$huge_curl_s" \
  "$(ratio "$huge_ondrel_s" "$huge_curl_s")")")
table+=("$(row "$rtt ms: peak memory, 2 GiB file (MB)" "$((huge_ondrel_kb / 1024))" \
  "$((huge_curl_kb / 1024))" "")")
stop_proxy
cut_after=$((64 << 20))
python3 Bench/delay_proxy.py --listen "$upstream_port" --target "$serve_port" --rtt-ms "$rtt" \
  --cut-after "$cut_after" &
proxy_pid=$!
sleep 1
echo "$base/content/large/cut.bin" >"$work/cut.list"
received=0
tries=0
until [ "$tries" -ge 10 ] || cmp -s "$work/large/cut.bin" "$work/upstream/content/large/cut.bin"; do
  tries=$((tries + 1))
  "$transfer" "$work/cut.list" "$work/large" >"$work/cut.out" 2>&1 || true
  received=$((received + $(awk '{print $3}' "$work/cut.out")))
done
cmp -s "$work/large/cut.bin" "$work/upstream/content/large/cut.bin" || echo "the cut file never arrived whole" >&2
table+=("$(row "$rtt ms: 200 MiB cut every 64 MiB, fetches" "$tries" "" "")")
table+=("$(row "$rtt ms: 200 MiB cut every 64 MiB, MiB received" \
  "$(python3 -c "print(f'{$received / 1048576:.1f}')")" "200.0" \
  "$(ratio "$received" $((200 << 20)))")")
stop_proxy

echo "Wide-area passes: $products products behind a delay proxy${BANDWIDTH:+ capped at $BANDWIDTH B/s}${TLS:+, HTTPS ($TLS)}"
echo "(reference: curl --parallel --parallel-max 16; aria2c -j 16 where named; memory curl / aria2c)"
row "figure" "Ondrel" "reference" "ratio"
printf '%s\n' "${table[@]}"
