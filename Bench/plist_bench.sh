#!/usr/bin/env bash
# Runs the property-list benchmark on a generated catalog, beside python3's plistlib.
# Usage: Bench/plist_bench.sh   (builds the release preset first)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target plist_bench >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build/release/Bench/plist_bench generate "$work/catalog.plist"
echo "catalog: $(stat -c %s "$work/catalog.plist") bytes"
echo "== libondrel"
build/release/Bench/plist_bench measure "$work/catalog.plist"
echo "== python3 plistlib"
python3 - "$work/catalog.plist" <<'PY'
import plistlib, resource, sys, time
start = time.perf_counter()
with open(sys.argv[1], "rb") as f:
    catalog = plistlib.load(f)
read = time.perf_counter() - start
start = time.perf_counter()
with open(sys.argv[1] + ".py", "wb") as f:
    plistlib.dump(catalog, f)
write = time.perf_counter() - start
peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
print(f"read {read:.3f} s, write {write:.3f} s, read+write {read + write:.3f} s")
print(f"peak resident memory {peak:.1f} MB")
PY
