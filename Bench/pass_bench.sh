#!/usr/bin/env bash
# Measures whole passes of ondrd_syncd on a sample upstream of 10,000 products (2 KiB packages)
# served by a real Apache httpd on loopback, with the mirror's own Apache serving its tree:
# - the first pass in automatic mode against one curl process fetching every file the pass
#   fetched (the upstream's request log gives the list; curl reuses its connection);
# - a steady-state pass (nothing new upstream) against curl fetching once each file that pass
#   asked for (in full, where the pass was answered 304 for files it keeps), three times: the
#   first one after the first pass (every product turns from new to recurring), the next (the
#   files it replaces now have previous versions), and the one after, which finds every merge
#   already made and is what every later pass of a running server looks like (it is run three
#   times, each beside curl, and the medians are shown);
# - the pass after the vendor's next day against curl fetching what that pass asked for, and
#   the same day rebuilt with --full;
# - ondrelctl status and ondrelctl products --json on the mirrored server;
# - the peak memory of each program.
# Usage: Bench/pass_bench.sh [products]   (as root; builds the release preset)
products="${1:-10000}"
upstream_port=18492
mirror_port=18493
work_prefix=ondrel-pass-bench
source "$(dirname "$0")/automatic_mirror.sh"
requests="$work/upstream/.sample-upstream/access.log"

# fetched_urls [STATUS...]: the URLs the upstream answered with one of these statuses (default
# 200) since its request log was emptied.
fetched_urls() {
  awk -v base="$base" -v statuses="${*:-200}" \
    'BEGIN { split(statuses, s, " "); for (i in s) ok[s[i]] = 1 } $1 == "GET" && ($3 in ok) {print base $2}' \
    "$requests"
}
# curl_fetch NAME LIST: one curl process fetching every URL of LIST, timed as NAME.
curl_fetch() {
  sed "s|.*|url = \"&\"\noutput = \"$work/curl.out\"|" "$2" >"$work/curl.config"
  measure "$1" curl -sS -K "$work/curl.config"
}

start_automatic_mirror "$products"

: >"$requests"
measure first_pass "$syncd" --once
fetched_urls >"$work/first.list"
curl_fetch first_curl "$work/first.list"

for pass in steady later settled; do
  : >"$requests"
  measure "${pass}_pass" "$syncd" --once
  fetched_urls 200 304 | sort -u >"$work/$pass.list"
  printf -v "${pass}_unchanged" '%s' "$(awk '$1 == "GET" && $3 == 304' "$requests" | wc -l)"
  curl_fetch "${pass}_curl" "$work/$pass.list"
done
# The settled pass is what a running server does every day after the first: it is measured two
# more times, each beside curl, and the medians are shown, so that no single slow run of either
# decides its ratio.
for round in 2 3; do
  measure "settled${round}_pass" "$syncd" --once
  curl_fetch "settled${round}_curl" "$work/settled.list"
done
for figure in pass_s pass_cpu pass_kb curl_s; do
  values=()
  for run in settled settled2 settled3; do
    name="${run}_${figure}"
    values+=("${!name}")
  done
  printf -v "settled_${figure}" '%s' "$(median "${values[@]}")"
done
# Each run's own ratio, so that the spread of runs is in sight beside their median.
settled_ratios=()
for run in settled settled2 settled3; do
  pass_s="${run}_pass_s" curl_s="${run}_curl_s"
  settled_ratios+=("$(ratio "${!pass_s}" "${!curl_s}")")
done

# The vendor's next day: 5 % new products (their files fetched), 3 % withdrawn, 2 % with new
# server metadata; every catalog changes.
"$sample" generate --out "$work/upstream" --base-url "$base" --products "$products" --epoch 1 \
  >/dev/null
: >"$requests"
measure day_pass "$syncd" --once
fetched_urls 200 304 | sort -u >"$work/day.list"
curl_fetch day_curl "$work/day.list"
# The same day again, rebuilt from scratch: what --full costs.
measure full_pass "$syncd" --once --full

measure status "$ctl" status
measure products_json "$ctl" products --json

echo "Whole passes: $products products (2 KiB packages), upstream and mirror on Apache (loopback)"
row "figure" "Ondrel" "curl" "ratio"
row "first pass, $(wc -l <"$work/first.list") files fetched (s)" "$first_pass_s" "$first_curl_s" \
  "$(ratio "$first_pass_s" "$first_curl_s")"
row "steady pass, $(wc -l <"$work/steady.list") files fetched (s)" "$steady_pass_s" \
  "$steady_curl_s" "$(ratio "$steady_pass_s" "$steady_curl_s")"
row "later steady pass, $(wc -l <"$work/later.list") files fetched (s)" "$later_pass_s" \
  "$later_curl_s" "$(ratio "$later_pass_s" "$later_curl_s")"
row "settled steady pass (median of 3), $(wc -l <"$work/settled.list") files (s)" "$settled_pass_s" \
  "$settled_curl_s" "$(ratio "$settled_pass_s" "$settled_curl_s")"
row "settled steady pass, each run's ratio" \
  "${settled_ratios[0]} / ${settled_ratios[1]} / ${settled_ratios[2]}" "" ""
row "steady passes, requests answered 304" \
  "$steady_unchanged / $later_unchanged / $settled_unchanged" "" ""
row "steady passes, CPU (s)" "$steady_pass_cpu / $later_pass_cpu / $settled_pass_cpu" "" ""
row "next vendor day, $(wc -l <"$work/day.list") files fetched (s)" "$day_pass_s" "$day_curl_s" \
  "$(ratio "$day_pass_s" "$day_curl_s")"
row "same day rebuilt with --full (s)" "$full_pass_s" "" ""
row "ondrelctl status (s)" "$status_s" "" ""
row "ondrelctl products --json (s)" "$products_json_s" "" ""
row "peak memory, ondrd_syncd first pass (MB)" "$((first_pass_kb / 1024))" \
  "$((first_curl_kb / 1024))" ""
row "peak memory, ondrd_syncd steady pass (MB)" "$((steady_pass_kb / 1024))" \
  "$((steady_curl_kb / 1024))" ""
row "peak memory, ondrd_syncd later steady pass (MB)" "$((later_pass_kb / 1024))" \
  "$((later_curl_kb / 1024))" ""
row "peak memory, ondrd_syncd settled pass, median (MB)" "$((settled_pass_kb / 1024))" \
  "$((settled_curl_kb / 1024))" ""
row "peak memory, next vendor day / --full (MB)" "$((day_pass_kb / 1024)) / $((full_pass_kb / 1024))" \
  "$((day_curl_kb / 1024))" ""
row "peak memory, ondrelctl status (MB)" "$((status_kb / 1024))" "" ""
row "peak memory, ondrelctl products --json (MB)" "$((products_json_kb / 1024))" "" ""
echo "first pass: $(tail -1 "$work/first_pass.out")"
echo "steady pass: $(tail -1 "$work/steady_pass.out")"
echo "later steady pass: $(tail -1 "$work/later_pass.out")"
