#!/usr/bin/env bash
# Kills ondrd_syncd with SIGKILL at random moments of its passes against a sample upstream, each
# kill followed by a clean pass, and checks the mirror after every kill and every clean pass:
# every served catalog parses; every URL in it answers through the mirror's Apache with a file of
# the catalog's size, which is also the size on disk; no served file is a ".downloading" one; the
# working set and the composite catalogs parse. Every tenth kill the vendor moves to its next day,
# so that kills also land while products are mirrored, replaced and purged.
# Usage: Bench/crash_soak.sh [kills] [products]   (as root; builds the release preset)
kills="${1:-100}"
products="${2:-300}"
upstream_port=18494
mirror_port=18495
work_prefix=ondrel-crash-soak
source "$(dirname "$0")/automatic_mirror.sh"

cat >"$work/check.py" <<'PY'
"""Checks a mirror: served catalogs, the files they name (on disk and through Apache), the
working set and the composite catalogs. Prints one line per fault; exits 1 when there is one."""
import http.client, os, plistlib, sys

root, port = sys.argv[1], int(sys.argv[2])
html = os.path.join(root, "Library/Server/Ondrel/Data/html")
others = os.path.join(html, "content/catalogs/others")
faults = []

def parse(path, what):
    try:
        with open(path, "rb") as f:
            return plistlib.load(f)
    except Exception as error:
        faults.append(f"{what} {os.path.basename(path)} does not parse: {error}")
        return None

parse(os.path.join(root, "Library/Server/Ondrel/Status/com.vantor.server.ondrel.plist"),
      "working set")
files = {}  # URL path -> expected size or None
for name in sorted(os.listdir(others)):
    path = os.path.join(others, name)
    if name.endswith(".composite"):
        parse(path, "composite catalog")
    if not name.endswith(".ktcatalog"):
        continue
    catalog = parse(path, "served catalog")
    if catalog is None:
        continue
    for entry in catalog.get("Products", {}).values():
        urls = [(url, None) for url in entry.get("Distributions", {}).values()]
        urls += [(entry["ServerMetadataURL"], None)] if "ServerMetadataURL" in entry else []
        for package in entry.get("Packages", []):
            urls.append((package["URL"], package.get("Size")))
            if "MetadataURL" in package:
                urls.append((package["MetadataURL"], None))
        for url, size in urls:
            prefix = f"http://127.0.0.1:{port}"
            if not url.startswith(prefix + "/"):
                faults.append(f"{name}: {url} does not name this mirror")
                continue
            files[url[len(prefix):]] = size

connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
for urlPath, size in sorted(files.items()):
    local = html + urlPath
    if urlPath.endswith(".downloading"):
        faults.append(f"{urlPath}: a partial download is served")
    if not os.path.isfile(local):
        faults.append(f"{urlPath}: no file on disk")
        continue
    if size is not None and os.path.getsize(local) != size:
        faults.append(f"{urlPath}: {os.path.getsize(local)} bytes on disk, catalog says {size}")
    connection.request("HEAD", urlPath)
    response = connection.getresponse()
    response.read()
    length = response.getheader("Content-Length")
    if response.status != 200:
        faults.append(f"{urlPath}: Apache answers {response.status}")
    elif size is not None and int(length or -1) != size:
        faults.append(f"{urlPath}: Apache sends {length} bytes, catalog says {size}")
for fault in faults[:20]:
    print(fault)
if len(faults) > 20:
    print(f"... and {len(faults) - 20} more")
print(f"{len(files)} files", file=sys.stderr)
sys.exit(1 if faults else 0)
PY

checks=0
failures=0
landed=0
check() {  # check WHAT: runs the checker, counts and reports what it finds
  checks=$((checks + 1))
  if ! python3 "$work/check.py" "$ONDREL_ROOT" "$mirror_port" >"$work/check.out" 2>/dev/null; then
    failures=$((failures + 1))
    echo "-- after $1:"
    cat "$work/check.out"
  fi
}
seconds_since() { python3 -c "import time; print(f'{time.time() - $1:.2f}')"; }

epoch=0
start_automatic_mirror "$products"

# A first pass without a kill gives the length of a pass that mirrors everything.
start=$(date +%s.%N)
"$syncd" --once >/dev/null 2>&1
pass_seconds=$(seconds_since "$start")
echo "first pass: $pass_seconds s ($products products)"
check "the first pass"

for kill in $(seq 1 "$kills"); do
  if ((kill % 10 == 0)); then
    epoch=$((epoch + 1))
    "$sample" generate --out "$work/upstream" --base-url "$base" --products "$products" \
      --epoch $((epoch % 3)) >/dev/null
  fi
  delay=$(python3 -c "import random; print(f'{random.uniform(0, $pass_seconds):.3f}')")
  "$syncd" --once >"$work/killed.out" 2>&1 &
  pid=$!
  sleep "$delay"
  if kill -KILL "$pid" 2>/dev/null; then landed=$((landed + 1)); fi
  wait "$pid" 2>/dev/null || true
  check "kill $kill at $delay s"
  start=$(date +%s.%N)
  if ! "$syncd" --once >"$work/pass.out" 2>&1; then
    failures=$((failures + 1))
    echo "-- the clean pass after kill $kill failed:"
    tail -5 "$work/pass.out"
  fi
  pass_seconds=$(seconds_since "$start")
  check "the clean pass after kill $kill"
done
echo "kills: $kills ($landed while the pass ran), checks: $checks, failures: $failures"
[ "$failures" -eq 0 ]
