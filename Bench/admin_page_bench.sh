#!/usr/bin/env bash
# Measures the administration page at 10,000 products: the JSON CGI's requests (time and peak
# memory, run directly as Apache runs it), the same through Apache with a session's cookie, and
# in headless Chromium the login, the page's load and a filter and a sort of the whole table.
# Usage: Bench/admin_page_bench.sh [products]   (as root; builds the release preset)
products="${1:-10000}"
upstream_port=18592
mirror_port=18593
admin_port=18594
work_prefix=ondrel-admin-bench
source "$(dirname "$0")/automatic_mirror.sh"
cgi=$build/Programs/OndrelServerAdmin

start_automatic_mirror "$products"
"$syncd" --once >/dev/null 2>&1
echo "bench-password" | "$ctl" web passwd bench >/dev/null
"$ctl" config set adminPort "$admin_port" >/dev/null
"$ctl" web start >/dev/null

jar="$work/cookies"
curl -s -o /dev/null -c "$jar" -d user=bench -d password=bench-password \
  "http://127.0.0.1:$admin_port/api/login"
cookie=$(awk '$6 == "ondrel_session" { print $6 "=" $7 }' "$jar")
printf '%-40s %10s %12s %10s\n' "request" "seconds" "peak (MB)" "body (KB)"
for route in status products plan; do
  env HTTP_COOKIE="$cookie" REQUEST_METHOD=GET PATH_INFO=/$route /usr/bin/time -f "%e %M" \
    -o "$work/time" "$cgi" >"$work/$route.json"
  read -r seconds kilobytes <"$work/time"
  printf '%-40s %10s %12s %10s\n' "CGI /api/$route" "$seconds" "$((kilobytes / 1024))" \
    "$(($(stat -c %s "$work/$route.json") / 1024))"
done
for route in status products plan; do
  best=$(for _ in 1 2 3; do
    curl -s -o /dev/null -b "$jar" -w '%{time_total}\n' \
      "http://127.0.0.1:$admin_port/api/$route"
  done | sort -n | head -1)
  printf '%-40s %10s\n' "through Apache /api/$route (best of 3)" "$best"
done

/usr/bin/python3 - "$admin_port" <<'PYTHON'
import sys, time
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

options = webdriver.ChromeOptions()
for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1280,1000"):
    options.add_argument(argument)
options.binary_location = "/usr/bin/chromium"
driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
try:
    started = time.time()
    driver.get(f"http://127.0.0.1:{sys.argv[1]}/")
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "login").is_displayed())
    driver.find_element(By.ID, "login-user").send_keys("bench")
    driver.find_element(By.ID, "login-password").send_keys("bench-password")
    driver.find_element(By.ID, "login-submit").click()
    WebDriverWait(driver, 120).until(
        lambda d: d.find_element(By.TAG_NAME, "body").get_attribute("data-loaded"))
    print(f"{'logged in, page loaded, table drawn (s)':40s} {time.time() - started:10.2f}")
    for label, script in (
            ("filter by text 'VT-00042' (ms)",
             "const f = document.getElementById('filter-text'); const t = performance.now();"
             "f.value = 'VT-00042'; f.dispatchEvent(new Event('input'));"
             "return performance.now() - t;"),
            ("filter cleared (ms)",
             "const f = document.getElementById('filter-text'); const t = performance.now();"
             "f.value = ''; f.dispatchEvent(new Event('input')); return performance.now() - t;"),
            ("sort 10,000 rows by title (ms)",
             "const t = performance.now(); document.querySelector(\"th[data-column='1']\").click();"
             "return performance.now() - t;")):
        print(f"{label:40s} {driver.execute_script(script):10.0f}")
    print(f"{'rows shown':40s} {driver.find_element(By.ID, 'shown-count').text}")
finally:
    driver.quit()
PYTHON
