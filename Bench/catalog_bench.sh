#!/usr/bin/env bash
# Measures the catalog spine on a sample upstream of 10,000 products (2 KiB packages) served by a
# real Apache httpd on loopback: product construction (against one curl process fetching the same
# metadata files), archive and restore, first and steady-state syncs, loads from the cache, served
# entries, the working set, and mirroring 1,000 products (against curl fetching the same files).
# Usage: Bench/catalog_bench.sh [products]   (as root; builds the release preset)
set -euo pipefail
cd "$(dirname "$0")/.."
products="${1:-10000}"
cmake --preset release >/dev/null
cmake --build --preset release --target catalog_bench ondrel-sample-upstream >/dev/null
bench=$PWD/build/release/Bench/catalog_bench
upstream=$PWD/build/release/Tools/SampleUpstream/ondrel-sample-upstream

work=$(mktemp -d /tmp/ondrel-bench-XXXXXX)
chmod 755 "$work"
port=18490
base="http://127.0.0.1:$port"
cleanup() {
  "$upstream" stop --dir "$work/tree" >/dev/null 2>&1 || true
  "$upstream" stop --dir "$work/big" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
newest=content/catalogs/others/index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog

seconds() { local start end; start=$(date +%s.%N); "$@" >/dev/null; end=$(date +%s.%N); python3 -c "print(f'{$end - $start:.3f}')"; }
curl_list() {  # fetches a URL list in one curl process, which reuses its connection
  sed "s|.*|url = \"&\"\noutput = \"$work/curl/x\"|" "$1" > "$work/curl.config"
  mkdir -p "$work/curl"
  seconds curl -s -K "$work/curl.config"
}
fresh_root() { rm -rf "$work/root"; mkdir -p "$work/root/Library/Server" "$work/root/Library/Preferences"; }
export ONDREL_ROOT="$work/root"
export ONDREL_RESOURCES="$PWD/Resources"

echo "== sample upstream: $products products, 2 KiB packages"
/usr/bin/time -f "generate: peak RSS %M KB, %e s" "$upstream" generate --out "$work/tree" \
  --base-url "$base" --products "$products"
du -sh "$work/tree" | sed 's/^/tree size: /'
"$upstream" serve --dir "$work/tree" --listen "127.0.0.1:$port" >/dev/null

echo "== product construction (metadata fetched from Apache)"
fresh_root
/usr/bin/time -f "construct phase: peak RSS %M KB" "$bench" construct "$base/$newest" "$products"
python3 - "$work/tree/$newest" "$work/smd.list" <<'PY'
import plistlib, sys
catalog = plistlib.load(open(sys.argv[1], "rb"))
with open(sys.argv[2], "w") as out:
    for entry in catalog["Products"].values():
        if "ServerMetadataURL" in entry:
            out.write(entry["ServerMetadataURL"] + "\n")
PY
echo "curl, the same $(wc -l < "$work/smd.list") metadata files: $(curl_list "$work/smd.list") s"

echo "== catalog sync"
fresh_root
/usr/bin/time -f "sync phase: peak RSS %M KB" "$bench" sync "$base/$newest"
echo "== working set"
/usr/bin/time -f "working set phase: peak RSS %M KB" "$bench" workingset "$base/$newest" "$products"
"$upstream" stop --dir "$work/tree" >/dev/null

echo "== mirroring 1,000 products (1 MiB packages, small metadata and distribution files)"
"$upstream" generate --out "$work/big" --base-url "$base" --products 1000 \
  --package-size $((1 << 20)) >/dev/null
"$upstream" serve --dir "$work/big" --listen "127.0.0.1:$port" >/dev/null
fresh_root
/usr/bin/time -f "mirror phase: peak RSS %M KB" "$bench" mirror "$base/$newest" 1000 "$work/mirror.list"
echo "curl, the same $(wc -l < "$work/mirror.list") files: $(curl_list "$work/mirror.list") s"
