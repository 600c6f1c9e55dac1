# Sourced by the whole-pass benches: builds the programs (release preset), makes a work folder
# that is removed on exit, and defines start_automatic_mirror PRODUCTS, which generates and
# serves a sample upstream on $upstream_port and sets up a mirror in automatic mode (service root
# $ONDREL_ROOT) whose Apache serves on $mirror_port. The sourcing script sets both ports and
# work_prefix first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target ondrd_syncd ondrelctl ondrel-sample-upstream >/dev/null
build=$PWD/build/release
sample=$build/Tools/SampleUpstream/ondrel-sample-upstream
syncd=$build/Programs/ondrd_syncd
ctl=$build/Programs/ondrelctl

work=$(mktemp -d "/tmp/$work_prefix-XXXXXX")
chmod 755 "$work"
base="http://127.0.0.1:$upstream_port"
export ONDREL_ROOT="$work/mirror"
export ONDREL_RESOURCES="$PWD/Resources"
cleanup() {
  "$ctl" web stop >/dev/null 2>&1 || true
  "$sample" stop --dir "$work/upstream" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

start_automatic_mirror() {
  "$sample" generate --out "$work/upstream" --base-url "$base" --products "$1" >/dev/null
  "$sample" serve --dir "$work/upstream" --listen "127.0.0.1:$upstream_port" >/dev/null
  mkdir -p "$ONDREL_ROOT/Library/Server" "$ONDREL_ROOT/Library/Preferences"
  "$ctl" config set metaIndexURL "$base/content/meta/mirror-config-1.plist" >/dev/null
  "$ctl" config set publicHostName 127.0.0.1 >/dev/null
  "$ctl" config set portToUse "$mirror_port" >/dev/null
  for key in autoMirror autoEnable PurgeUnused; do "$ctl" config set "$key" true >/dev/null; done
  "$ctl" web start >/dev/null
}
