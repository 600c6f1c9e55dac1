#!/usr/bin/env bash
# Measures ondrelctl verify on a mirror filled by one pass (every digest taken as the files
# arrived): the full verify, which reads and hashes every byte of the kept products' files,
# against sha256sum over every file whose digest the pass recorded (the same files and those of
# products still being fetched), compared by throughput; three rounds each, alternating, the
# medians shown, the files in the page cache as sha256sum finds them after the pass. Then the
# quick verify, which reads nothing.
# Usage: Bench/verify_bench.sh [products] [package bytes]   (as root; builds the release preset)
products="${1:-10000}"
package="${2:-2048}"
upstream_port=18494
mirror_port=18495
work_prefix=ondrel-verify-bench
source "$(dirname "$0")/automatic_mirror.sh"

start_automatic_mirror "$products" "$package"
measure pass "$syncd" --once
tail -n +2 "$ONDREL_ROOT/Library/Server/Ondrel/Data/.digests" | cut -f1 >"$work/files"
recorded=$(wc -l <"$work/files")
recorded_bytes=$(xargs -a "$work/files" stat -c %s | awk '{s += $1} END {print s}')

full=() sums=() quick=()
for round in 1 2 3; do
  measure verify "$ctl" verify --json
  full+=("$verify_s")
  measure sums xargs -a "$work/files" sha256sum
  sums+=("$sums_s")
  measure quick "$ctl" verify --quick
  quick+=("$quick_s")
done
checked=$(grep -o '"checked": [0-9]*' "$work/verify.out" | grep -o '[0-9]*$')
checked_bytes=$(grep -o '"bytesRead": [0-9]*' "$work/verify.out" | grep -o '[0-9]*$')
full_s=$(median "${full[@]}")
sums_s=$(median "${sums[@]}")
verify_rate=$(python3 -c "print(f'{$checked_bytes / $full_s / 1e6:.0f}')")
sums_rate=$(python3 -c "print(f'{$recorded_bytes / $sums_s / 1e6:.0f}')")
echo "ondrelctl verify: $products products, packages of $package bytes"
row "figure" "ondrelctl" "sha256sum" "ratio"
row "files" "$checked" "$recorded" ""
row "MB read" "$((checked_bytes / 1000000))" "$((recorded_bytes / 1000000))" ""
row "full verify, median of 3 (s)" "$full_s" "$sums_s" ""
row "throughput (MB/s)" "$verify_rate" "$sums_rate" "$(ratio "$verify_rate" "$sums_rate")"
row "quick verify, median of 3 (s)" "$(median "${quick[@]}")" "" ""
row "peak memory, full verify (MB)" "$((verify_kb / 1024))" "" ""
