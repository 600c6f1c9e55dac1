#!/usr/bin/env bash
# Measures how fast the mirror's Apache answers clients' catalog requests, with wrk (32
# connections, 8 s each) against a mirror of a sample upstream: the catalog as a static file,
# the same through the catalog CGI's URL (answered from the file), a 304 for each, its gzip form,
# and the CGI itself (a request it must answer: an If-Modified-Since that is no HTTP date).
# Usage: Bench/serve_bench.sh [products]   (as root; builds the release preset; needs wrk)
products="${1:-2000}"
upstream_port=18595
mirror_port=18596
work_prefix=ondrel-serve-bench
source "$(dirname "$0")/automatic_mirror.sh"
command -v wrk >/dev/null || { echo "wrk is missing: scripts/bootstrap bench" >&2; exit 1; }

start_automatic_mirror "$products"
"$syncd" --once >/dev/null 2>&1
newest=index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog
static="http://127.0.0.1:$mirror_port/content/catalogs/others/$newest"
cgi="http://127.0.0.1:$mirror_port/cgi-bin/OndrelServerGetCatalog?/$newest"
sleep 1.1 # a file younger than a second gets a weak entity tag
tag=$(curl -sI "$cgi" | tr -d '\r' | sed -n 's/^ETag: //Ip')

# rate NAME URL [HEADER...]: requests per second and bytes per response.
rate() {
  local name=$1 url=$2
  shift 2
  local headers=()
  for header in "$@"; do headers+=(-H "$header"); done
  wrk -t2 -c32 -d8s ${headers[@]+"${headers[@]}"} "$url" >"$work/wrk.out"
  local requests bytes
  requests=$(awk '/^Requests\/sec/ { print $2 }' "$work/wrk.out")
  bytes=$(curl -s -o /dev/null -w '%{size_download}' ${headers[@]+"${headers[@]}"} "$url")
  printf '%-46s %12s %12s\n' "$name" "$requests" "$bytes"
}

printf '%-46s %12s %12s\n' "request ($products products)" "requests/s" "bytes"
rate "the catalog as a static file" "$static"
rate "the catalog through the CGI's URL" "$cgi"
rate "a 304 for the static file" "$static" "If-None-Match: $tag"
rate "a 304 through the CGI's URL" "$cgi" "If-None-Match: $tag"
rate "the catalog gzipped (Accept-Encoding: gzip)" "$cgi" "Accept-Encoding: gzip"
rate "the CGI itself (a date that is no date)" "$cgi" "If-Modified-Since: soon"
