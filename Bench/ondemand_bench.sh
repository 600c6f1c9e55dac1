#!/usr/bin/env bash
# Measures mirroring on demand across a wide-area link: the sample upstream (Apache on loopback)
# behind Bench/delay_proxy.py, a mirror in automatic mode whose products are fetched on demand,
# and clients (curl) asking the mirror's Apache on loopback.
# - the first pass of the on-demand mirror against curl --parallel-max 16 fetching the same URLs
#   (catalogs and metadata; no product file may be among them);
# - a cold 100 MiB file: time to first byte and whole time through the mirror against curl
#   straight from the upstream, with the bounds (1.2x curl's first byte plus one round trip;
#   1.1x its whole time);
# - 50 clients asking for one cold file at once: the upstream's requests for it, and whether all
#   50 received the upstream's bytes;
# - 200 clients over 20 cold files: the wall time, the upstream's requests for them, and whether
#   every client received the right bytes; before it, the same clients with
#   Bench/served_monitor.py watching the served tree (a file there only ever whole).
# Usage: Bench/ondemand_bench.sh [products] [round trip ms]
#        (as root; default 10000 products and 50 ms; BANDWIDTH=bytes/s caps the link)
products="${1:-10000}"
rtt="${2:-50}"
upstream_port=18596 # the proxy: every URL of the sample names it
serve_port=18597    # the upstream's Apache
mirror_port=18598
work_prefix=ondrel-ondemand-bench
source "$(dirname "$0")/automatic_mirror.sh"
requests="$work/upstream/.sample-upstream/access.log"
mirror="http://127.0.0.1:$mirror_port"

proxy_pid=
stop_proxy() { if [ -n "$proxy_pid" ]; then kill "$proxy_pid" 2>/dev/null || true; fi; }
trap 'stop_proxy; cleanup' EXIT
python3 Bench/delay_proxy.py --listen "$upstream_port" --target "$serve_port" --rtt-ms "$rtt" \
  --bandwidth "${BANDWIDTH:-0}" &
proxy_pid=$!

# fresh_upstream PRODUCTS PACKAGE_BYTES: a new tree served, and a fresh on-demand mirror of it.
fresh_upstream() {
  "$ctl" web stop >/dev/null 2>&1 || true
  "$sample" stop --dir "$work/upstream" >/dev/null 2>&1 || true
  rm -rf "$work/upstream" "$ONDREL_ROOT"
  start_automatic_mirror "$1" "$2"
  "$ctl" config set autoMirrorPolicy on-demand >/dev/null
  "$ctl" config set onDemandRetryAfter 5 >/dev/null
  : >"$requests"
}
# The URL paths of the files on demand, largest first.
offered_files() {
  tail -n +2 "$ONDREL_ROOT/Library/Server/Ondrel/Data/.ondemand/index" | sort -t$'\t' -k2,2nr |
    cut -f1
}
upstream_gets() { awk -v path="$1" '$1 == "GET" && $2 == path' "$requests" | wc -l; }
# many_clients URL_PATH... : every URL fetched by its own client, all at once; sets clients_s,
# clients_kb and wrong (how many bodies differ from the upstream's file).
many_clients() {
  local config="$work/clients.config" number=0
  : >"$config"
  mkdir -p "$work/clients"
  for path in "$@"; do
    number=$((number + 1))
    printf 'url = "%s%s"\noutput = "%s/clients/%d"\n' "$mirror" "$path" "$work" "$number" >>"$config"
  done
  measure clients curl -sS --parallel --parallel-immediate --parallel-max "$#" -K "$config"
  wrong=0
  number=0
  for path in "$@"; do
    number=$((number + 1))
    cmp -s "$work/clients/$number" "$work/upstream$path" || wrong=$((wrong + 1))
  done
  rm -rf "$work/clients"
}

table=()
for _ in $(seq 50); do curl -s -o /dev/null "$base/" && break; sleep 0.1; done

# The first pass of an on-demand mirror: catalogs and metadata only.
fresh_upstream "$products" 2048
measure first_pass "$syncd" --once
awk -v base="$base" '$1 == "GET" && $3 == 200 {print base $2}' "$requests" >"$work/first.list"
package_gets=$(grep -c '\.pkg$' "$work/first.list" || true)
sed 's|.*|url = "&"\noutput = "/dev/null"|' "$work/first.list" >"$work/curl.config"
measure first_curl curl -sS --parallel --parallel-max 16 -K "$work/curl.config"
table+=("$(row "first pass, $products products, $(wc -l <"$work/first.list") files (s)" \
  "$first_pass_s" "$first_curl_s" "$(ratio "$first_pass_s" "$first_curl_s")")")
table+=("$(row "first pass: product packages fetched" "$package_gets" "0" "")")

# One cold file of 100 MiB, then 50 clients at once on another.
fresh_upstream 4 $((100 << 20))
"$syncd" --once >/dev/null 2>&1
mapfile -t large < <(offered_files | sed -n 1,2p)
read -r direct_first direct_total < <(curl -sS -o /dev/null -w '%{time_starttransfer} %{time_total}\n' \
  "$base${large[0]}")
: >"$requests"
read -r mirror_first mirror_total < <(curl -sS -o "$work/cold" -w '%{time_starttransfer} %{time_total}\n' \
  "$mirror${large[0]}")
cmp -s "$work/cold" "$work/upstream${large[0]}" ||
  echo "the cold file arrived wrong: $(stat -c %s "$work/cold") bytes of $(stat -c %s "$work/upstream${large[0]}")" >&2
rm -f "$work/cold"
first_bound=$(python3 -c "print(f'{1.2 * $direct_first + $rtt / 1000:.3f}')")
table+=("$(row "cold 100 MiB file: first byte (s)" "$mirror_first" "$direct_first" \
  "$(ratio "$mirror_first" "$direct_first")")")
table+=("$(row "  bound: 1.2x curl's + one round trip (s)" "$mirror_first" "$first_bound" \
  "$(ratio "$mirror_first" "$first_bound")")")
table+=("$(row "cold 100 MiB file: whole (s)" "$mirror_total" "$direct_total" \
  "$(ratio "$mirror_total" "$direct_total")")")
table+=("$(row "cold 100 MiB file: upstream requests" "$(upstream_gets "${large[0]}")" "1" "")")
clients=()
for _ in $(seq 50); do clients+=("${large[1]}"); done
many_clients "${clients[@]}"
table+=("$(row "50 clients, one cold 100 MiB file (s)" "$clients_s" "$direct_total" "")")
table+=("$(row "  upstream requests / wrong bodies" "$(upstream_gets "${large[1]}") / $wrong" \
  "1 / 0" "")")

# 200 clients over 20 cold files.
fresh_upstream 24 $((4 << 20))
"$syncd" --once >/dev/null 2>&1
mapfile -t twenty < <(offered_files | sed -n 1,20p)
clients=()
for round in $(seq 10); do clients+=("${twenty[@]}"); done
# The served tree as clients see it, every 20 ms while they ask: no file there in part.
html="$ONDREL_ROOT/Library/Server/Ondrel/Data/html"
printf '%s\n' "${clients[@]}" >"$work/twenty.list"
if python3 Bench/served_monitor.py "$html" "$mirror_port" -- \
  bash -c "xargs -P 200 -I{} curl -sS -o /dev/null '$mirror{}' <'$work/twenty.list'" \
  >"$work/monitor.out"; then
  monitor_faults=0
else
  monitor_faults=$(grep -c '^  *[0-9.]* s ' "$work/monitor.out" || true)
fi
# Cold again for the timed run.
rm -rf "$html/content/downloads"
: >"$requests"
many_clients "${clients[@]}"
asked=0
for path in "${twenty[@]}"; do asked=$((asked + $(upstream_gets "$path"))); done
table+=("$(row "200 clients over 20 cold files (s)" "$clients_s" "" "")")
table+=("$(row "  faults the served-tree monitor saw" "$monitor_faults" "0" "")")
table+=("$(row "  upstream requests / wrong bodies" "$asked / $wrong" "20 / 0" "")")
table+=("$(row "  peak memory of curl's 200 transfers (MB)" "$((clients_kb / 1024))" "" "")")

echo "On demand: sample upstream behind a ${rtt} ms delay proxy${BANDWIDTH:+ capped at $BANDWIDTH B/s}; clients on loopback"
echo "(reference: curl --parallel-max 16 for the pass, curl straight from the upstream for files)"
row "figure" "Ondrel" "reference" "ratio"
printf '%s\n' "${table[@]}"
