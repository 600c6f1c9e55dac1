#!/usr/bin/env bash
# Measures how fast the mirror's Apache answers clients' catalog requests, with wrk (32
# connections, 8 s each) against a mirror of a sample upstream: the catalog as a static file,
# the same through the catalog CGI's URL (answered from the file), a 304 for each, its gzip and
# brotli forms, and the CGI itself (a request it must answer: an If-Modified-Since that is no
# HTTP date); with rings defined, the CGI's redirect of a client to its ring's catalog and that
# catalog as a static file and as a 304; then 5,000 connections at once downloading a package, with the errors wrk saw and
# the memory of all of Apache's processes. nginx serving the same tree is the reference.
# Usage: Bench/serve_bench.sh [products]   (as root; builds the release preset; needs wrk)
products="${1:-2000}"
upstream_port=18595
mirror_port=18596
nginx_port=18597
work_prefix=ondrel-serve-bench
source "$(dirname "$0")/automatic_mirror.sh"
command -v wrk >/dev/null || { echo "wrk is missing: scripts/bootstrap bench" >&2; exit 1; }

ulimit -n "$(ulimit -Hn)" # wrk holds a descriptor per connection
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
rate "the catalog as brotli (Accept-Encoding: br)" "$cgi" "Accept-Encoding: br"
rate "the CGI itself (a date that is no date)" "$cgi" "If-Modified-Since: soon"

# With rings every catalog request goes through the CGI, which sends the client on to its
# ring's catalog (wrk does not follow the redirect: this is the CGI's own rate).
"$ctl" rings set pilot --blocks 10.0.0.0/8 >/dev/null
"$ctl" rings set broad --share 100 >/dev/null
"$syncd" --once >/dev/null 2>&1
ring="http://127.0.0.1:$mirror_port/content/catalogs/rings/broad/$newest"
sleep 1.1
ring_tag=$(curl -sI "$ring" | tr -d '\r' | sed -n 's/^ETag: //Ip')
rate "rings: the CGI's redirect to the ring's catalog" "$cgi"
rate "rings: the ring's catalog as a static file" "$ring"
rate "rings: a 304 for the ring's catalog" "$ring" "If-None-Match: $ring_tag"
"$ctl" rings remove pilot >/dev/null
"$ctl" rings remove broad >/dev/null
"$syncd" --once >/dev/null 2>&1

# The reference: nginx serving the same tree as static files, with the same gzip forms.
html=$ONDREL_ROOT/Library/Server/Ondrel/Data/html
mkdir -p "$work/nginx"
cat >"$work/nginx/nginx.conf" <<NGINX
worker_processes auto;
worker_rlimit_nofile 20000;
error_log $work/nginx/error.log;
pid $work/nginx/nginx.pid;
events { worker_connections 8192; }
http {
  access_log off;
  sendfile on;
  gzip_static on;
  types { text/xml ktcatalog; application/octet-stream pkg; }
  server { listen 127.0.0.1:$nginx_port; root $html; }
}
NGINX
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf"
trap 'nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -s stop 2>/dev/null; cleanup' EXIT
sleep 0.5
reference="http://127.0.0.1:$nginx_port/content/catalogs/others/$newest"
reference_tag=$(curl -sI "$reference" | tr -d '\r' | sed -n 's/^ETag: //Ip')
rate "nginx: the catalog as a static file" "$reference"
rate "nginx: a 304" "$reference" "If-None-Match: $reference_tag"
rate "nginx: the catalog gzipped" "$reference" "Accept-Encoding: gzip"

package=$html/content/downloads/bench/large.pkg
mkdir -p "$(dirname "$package")"
head -c $((1 << 20)) /dev/urandom >"$package"
chmod 644 "$package"
url="http://127.0.0.1:$mirror_port/content/downloads/bench/large.pkg"
reference_package="http://127.0.0.1:$nginx_port/content/downloads/bench/large.pkg"
# many NAME HEADER SERVER URL: 5,000 connections fetching URL over and over for 15 s; what wrk
# counted, and the memory of all the SERVER's processes (apache2, nginx) 10 s in.
many() {
  local name=$1
  shift
  local server=$2 target=$3
  wrk -t2 -c5000 -d15s --timeout 30s ${1:+-H "$1"} "$target" >"$work/wrk.out" &
  sleep 10
  local apache_kb processes
  apache_kb=$(ps -C "$server" -o rss= | awk '{ sum += $1 } END { print sum }')
  processes=$(ps -C "$server" --no-headers | wc -l)
  wait
  printf '%-46s %12s %12s\n' "$name" "$(awk '/^Requests\/sec/ { print $2 }' "$work/wrk.out")" \
    "$(awk '/Socket errors/ { gsub(",", ""); print $4 "/" $6 "/" $8 "/" $10 }' "$work/wrk.out" |
      grep . || echo 0/0/0/0)"
  printf '%-46s %12s %12s\n' "  non-2xx; server MB and processes" \
    "$(awk '/Non-2xx/ { print $5 }' "$work/wrk.out" | grep . || echo 0)" \
    "$((apache_kb / 1024)) / $processes"
}
printf '\n%-46s %12s %12s\n' "5,000 connections, a 1 MB package" "requests/s" \
  "errors c/r/w/t"
# Apache closes a kept-alive connection between two requests when its processes hold all they
# may; wrk counts each as a read error and reconnects, as any client does.
many "  kept alive" "" apache2 "$url"
many "  a connection per download" "Connection: close" apache2 "$url"
many "  nginx, kept alive" "" nginx "$reference_package"
