#!/usr/bin/env bash
# Proves that a client is never served a wrong or missing file, during passes or after them. A
# sample upstream on Apache turns hostile or busy one scenario at a time
# (Bench/upstream_mutations.py: packages replaced in place, Sizes that lie, products that share
# paths or name a served catalog, a 64 MiB body for a 10-byte package, a 250-character name, an
# HTML page as the deprecations list or as a catalog, traversals and other hosts in URLs, redirect
# loops and 500s, a server that drips), and every pass runs under
# Bench/served_monitor.py, which checks the served tree every 20 ms. Then the catalog CGI is
# offered a link in a catalog's place and ondrelctl a host name no URL can carry.
# Usage: Bench/served_probe.sh [products]   (as root; builds the release preset; about 4 minutes,
# two of them the dripping server; ONDREL_BUILD=DIR takes the programs of another build folder,
# SCENARIOS="replace share ..." runs only those)
products="${1:-60}"
upstream_port=18500
mirror_port=18501
drip_port=18502
work_prefix=ondrel-served-probe
source "$(dirname "$0")/automatic_mirror.sh"

# Sends the headers of a 10,000-byte body, then one byte every 0.4 s; under /loop/ redirects to
# itself, under /error/ answers 500, under /long/ sends 5,000 bytes for a Content-Length of 100.
python3 - "$drip_port" >/dev/null 2>&1 <<'PY' &
import http.server, sys, time
class Drip(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        if "/long/" in self.path:
            self.send_response(200)
            self.send_header("Content-Length", "100")
            self.end_headers()
            self.wfile.write(b"x" * 5000)
            return
        if "/loop/" in self.path or "/error/" in self.path:
            self.send_response(302 if "/loop/" in self.path else 500)
            self.send_header("Location", self.path)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        self.send_response(200)
        self.send_header("Content-Length", "10000")
        self.end_headers()
        try:
            for _ in range(10000):
                self.wfile.write(b"d"); self.wfile.flush(); time.sleep(0.4)
        except OSError:
            pass
http.server.ThreadingHTTPServer(("127.0.0.1", int(sys.argv[1])), Drip).serve_forever()
PY
drip_pid=$!
trap 'kill $drip_pid 2>/dev/null; cleanup' EXIT

start_automatic_mirror "$products"
html="$ONDREL_ROOT/Library/Server/Ondrel/Data/html"
faulty=0
passes=0
checks=0
watched_pass() {
  echo "== $1"
  passes=$((passes + 1))
  python3 Bench/served_monitor.py "$html" "$mirror_port" -- "$syncd" --once || faulty=$((faulty + 1))
}
check() {  # check WHAT CONDITION...: one line, and a fault when the condition fails
  local what=$1
  shift
  checks=$((checks + 1))
  if "$@"; then echo "  ok: $what"; else echo "  FAULT: $what"; faulty=$((faulty + 1)); fi
}

watched_pass "first pass, automatic mode"
for scenario in ${SCENARIOS:-replace wrong-size share oversized long-name html traversal errors \
  unchanged drip html-catalog}; do
  if [ "$scenario" = unchanged ]; then
    # The administration side at work while the pass runs.
    (while :; do
      for command in status "products --json" "enable VT-000001" "mirror VT-000002" \
        "config set syncBandwidth 0" "enable ../x"; do
        status=0
        # shellcheck disable=SC2086
        "$ctl" $command >/dev/null 2>&1 || status=$?
        [ "$status" -le 2 ] || echo "  FAULT: ondrelctl $command ended with status $status"
      done
    done) &
    busy=$!
    watched_pass "a pass with nothing changed, ondrelctl busy beside it"
    kill "$busy" 2>/dev/null || true
    continue
  fi
  echo "-- $(python3 Bench/upstream_mutations.py "$work/upstream" "$base" "$scenario" \
    "http://127.0.0.1:$drip_port/content/downloads/drip/drip.pkg")"
  started=$(date +%s)
  watched_pass "$scenario"
  case $scenario in
    oversized)
      check "no file of the mirror grew past 1 MiB" \
        test -z "$(find "$ONDREL_ROOT" -type f -size +1M -print -quit)" ;;
    html)
      check "the served deprecations list is still a property list" python3 -c \
        "import plistlib,sys; plistlib.load(open(sys.argv[1],'rb'))" \
        "$html/content/catalogs/Deprecations.plist" ;;
    traversal)
      check "nothing was written outside the service root" \
        test -z "$(find / -xdev -name escaped.pkg -print -quit 2>/dev/null)" ;;
    drip)
      echo "  the pass with a dripping server took $(($(date +%s) - started)) s" ;;
  esac
done

echo "== the catalog CGI and ondrelctl"
catalog="$html/content/catalogs/others/index-alder-birch.merged-1.ktcatalog"
mv "$catalog" "$catalog.kept"
ln -s /etc/passwd "$catalog"
status=$(curl -s -o "$work/cgi.out" -w '%{http_code}' \
  "http://127.0.0.1:$mirror_port/cgi-bin/OndrelServerGetCatalog?/index-alder-birch.merged-1.ktcatalog")
check "a link at a catalog's place is not followed (HTTP $status)" \
  bash -c "[ $status = 404 ] && ! grep -q root: '$work/cgi.out'"
rm "$catalog"
mv "$catalog.kept" "$catalog"
check "ondrelctl refuses a host name of 300 characters" \
  bash -c "! '$ctl' config set publicHostName $(printf 'a%.0s' $(seq 300)) 2>/dev/null"

echo "$passes passes watched every 20 ms and $checks other checks: $faulty with faults"
[ "$faulty" -eq 0 ]
