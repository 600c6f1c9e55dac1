# Sourced by the whole-pass benches: builds the programs (release preset), makes a work folder
# that is removed on exit, and defines start_automatic_mirror PRODUCTS [PACKAGE_BYTES], which
# generates and serves a sample upstream (packages of 2048 bytes unless given) whose URLs name
# port $upstream_port and sets up a mirror in automatic mode (service root $ONDREL_ROOT) whose
# Apache serves on $mirror_port. The sourcing script sets both ports and work_prefix first; it
# may set scheme (https), serve_port for an upstream whose Apache listens elsewhere than its URLs
# say (behind a proxy) and serve_options for the serve command, and call
# configure_automatic_mirror again for a fresh mirror.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# ONDREL_BUILD names another build folder whose programs are used as they are (an older version,
# to compare); otherwise the release preset is built.
if [ -z "${ONDREL_BUILD:-}" ]; then
  cmake --preset release >/dev/null
  cmake --build --preset release --target ondrd_syncd ondrelctl ondrel-sample-upstream >/dev/null
fi
build=${ONDREL_BUILD:-$PWD/build/release}
sample=$build/Tools/SampleUpstream/ondrel-sample-upstream
syncd=$build/Programs/ondrd_syncd
ctl=$build/Programs/ondrelctl

work=$(mktemp -d "/tmp/$work_prefix-XXXXXX")
chmod 755 "$work"
base="${scheme:-http}://127.0.0.1:$upstream_port"
export ONDREL_ROOT="$work/mirror"
export ONDREL_RESOURCES="$PWD/Resources"
cleanup() {
  "$ctl" web stop >/dev/null 2>&1 || true
  "$sample" stop --dir "$work/upstream" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

# measure NAME COMMAND...: runs COMMAND, keeps its seconds, peak RSS (KB) and CPU seconds (user
# and system) in NAME_s / NAME_kb / NAME_cpu.
measure() {
  local name=$1
  shift
  if ! /usr/bin/time -f "%e %M %U %S" -o "$work/time" "$@" >"$work/$name.out" 2>&1; then
    tail -20 "$work/$name.out" >&2
    echo "$name failed" >&2
    exit 1
  fi
  read -r seconds kilobytes user system <"$work/time"
  printf -v "${name}_s" '%s' "$seconds"
  printf -v "${name}_kb" '%s' "$kilobytes"
  printf -v "${name}_cpu" '%s' "$(python3 -c "print(f'{$user + $system:.2f}')")"
}
ratio() { python3 -c "print(f'{$1 / $2:.2f}x')"; }
# median VALUE...: the middle value, as the values are written.
median() { printf '%s\n' "$@" | sort -g | sed -n "$((($# + 1) / 2))p"; }
row() { printf '%-46s %12s %12s %8s\n' "$@"; }

start_automatic_mirror() {
  "$sample" generate --out "$work/upstream" --base-url "$base" --products "$1" \
    --package-size "${2:-2048}" >/dev/null
  "$sample" serve --dir "$work/upstream" --listen "127.0.0.1:${serve_port:-$upstream_port}" \
    ${serve_options[@]+"${serve_options[@]}"} >/dev/null
  configure_automatic_mirror
}

configure_automatic_mirror() {
  mkdir -p "$ONDREL_ROOT/Library/Server" "$ONDREL_ROOT/Library/Preferences"
  # As on an installed server: root's ondrelctl and ondrd_syncd act as the service account.
  [ "$(id -u)" -ne 0 ] || chown -R _ondrel:_ondrel "$ONDREL_ROOT"
  "$ctl" config set metaIndexURL "$base/content/meta/mirror-config-1.plist" >/dev/null
  "$ctl" config set publicHostName 127.0.0.1 >/dev/null
  "$ctl" config set portToUse "$mirror_port" >/dev/null
  for key in autoMirror autoEnable PurgeUnused; do "$ctl" config set "$key" true >/dev/null; done
  "$ctl" web start >/dev/null
}
