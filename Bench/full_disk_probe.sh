#!/usr/bin/env bash
# Fills the disk under a mirror: its service root is a 6 MB tmpfs, and the sample upstream holds
# about 8 MB of packages. The first pass must end cleanly (a failure with its message, or
# products skipped for lack of space), with the served tree checked every 20 ms by
# Bench/served_monitor.py; nothing half-written may be served. Then the tmpfs grows to 40 MB, and
# the next pass must complete and mirror everything.
# Usage: Bench/full_disk_probe.sh   (as root, for the mount; builds the release preset)
upstream_port=18503
mirror_port=18504
work_prefix=ondrel-full-disk
source "$(dirname "$0")/automatic_mirror.sh"
mkdir -p "$ONDREL_ROOT"
mount -t tmpfs -o size=6m,mode=755 tmpfs "$ONDREL_ROOT"
trap '"$ctl" web stop >/dev/null 2>&1; umount "$ONDREL_ROOT" 2>/dev/null; cleanup' EXIT

"$sample" generate --out "$work/upstream" --base-url "$base" --products 60 \
  --package-size 65536 >/dev/null
"$sample" serve --dir "$work/upstream" --listen "127.0.0.1:$upstream_port" >/dev/null
configure_automatic_mirror
html="$ONDREL_ROOT/Library/Server/Ondrel/Data/html"
faulty=0

echo "== a pass onto a 6 MB volume"
python3 Bench/served_monitor.py "$html" "$mirror_port" -- "$syncd" --once || faulty=$((faulty + 1))
"$syncd" --once >"$work/second.out" 2>&1
echo "  the pass after it: $(grep -c 'Skipping product' "$work/second.out") products skipped for" \
  "space, $(grep -c 'could not be\|failed' "$work/second.out") lines of failures"
echo "  $(df -h "$ONDREL_ROOT" | awk 'NR == 2 {print $5 " of " $2 " used"}')"

echo "== space freed (40 MB)"
mount -o remount,size=40m "$ONDREL_ROOT"
python3 Bench/served_monitor.py "$html" "$mirror_port" -- "$syncd" --once || faulty=$((faulty + 1))
mirrored=$("$ctl" status | awk '/mirror states/ {print}')
echo "  $mirrored"
partial=$(find "$ONDREL_ROOT" -name '*.downloading' | wc -l)
echo "  side files left: $partial"
[ "$partial" -eq 0 ] || faulty=$((faulty + 1))
echo "full disk: $faulty with faults"
[ "$faulty" -eq 0 ]
