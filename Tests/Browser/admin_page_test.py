#!/usr/bin/python3
"""The administration page in a real browser: headless Chromium, driven through WebDriver, against
a mirror after a pass on the sample upstream. It logs in, compares the dashboard with
`ondrelctl status`, filters and sorts the table, mirrors a product and sees it become Mirrored
after "Sync now", opens a product's detail and logs out; it sends refused logins (which Apache's
error log must show as fail2ban reads them), and forged and hostile requests that must change
nothing. Screenshots of the dashboard and the table go to the folder given."""

import argparse
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

from selenium import webdriver
from selenium.common.exceptions import (ElementNotInteractableException,
                                        StaleElementReferenceException)
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support import expected_conditions
from selenium.webdriver.support.ui import Select, WebDriverWait

PASSWORD = "browser-test-password"
PRODUCT = "VT-000003"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(command, stdin=None, check=True):
    done = subprocess.run(command, input=stdin, capture_output=True, text=True, timeout=120)
    if check and done.returncode != 0:
        raise AssertionError(f"{command} failed ({done.returncode}): {done.stdout}{done.stderr}")
    return done


def request(url, data=None, headers=None):
    """Status, body and headers of one request, errors included."""
    try:
        with urllib.request.urlopen(urllib.request.Request(url, data=data, headers=headers or {}),
                                    timeout=30) as response:
            return response.status, response.read().decode(), response.headers
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode(), error.headers


def login(url, user, password, origin=None):
    """Status, the session's cookie and its token (both empty when refused)."""
    headers = {"Content-Type": "application/x-www-form-urlencoded"}
    if origin:
        headers["Origin"] = origin
    data = urllib.parse.urlencode({"user": user, "password": password}).encode()
    status, body, answered = request(url + "/api/login", data, headers)
    if status != 200:
        return status, "", ""
    return status, answered["Set-Cookie"].split(";")[0], json.loads(body)["token"]


def spool(root):
    folder = os.path.join(root, "var/spool/ondrd")
    return sorted(os.listdir(folder)) if os.path.isdir(folder) else []


class Mirror:
    """A mirror after one pass, its web server with the page, and its daemon running."""

    def __init__(self, options, folder):
        self.options = options
        self.folder = folder
        self.root = os.path.join(folder, "root")
        os.makedirs(os.path.join(self.root, "Library/Server"))
        # As on an installed server: the service root is the service account's, as which
        # ondrelctl, the daemon, the web server and the page's CGI run.
        run(["chown", "-R", "_ondrel:_ondrel", self.root])
        os.environ["ONDREL_ROOT"] = self.root
        os.environ["ONDREL_RESOURCES"] = options.resources
        self.upstream = os.path.join(folder, "upstream")
        upstream_port, self.client_port, self.admin_port = free_port(), free_port(), free_port()
        base = f"http://127.0.0.1:{upstream_port}"
        run([options.sample, "generate", "--out", self.upstream, "--base-url", base,
             "--products", "20"])
        run([options.sample, "serve", "--dir", self.upstream, "--listen",
             f"127.0.0.1:{upstream_port}"])
        for key, value in (("metaIndexURL", f"{base}/content/meta/config.plist"),
                           ("publicHostName", "127.0.0.1"),
                           ("portToUse", str(self.client_port)),
                           ("adminPort", str(self.admin_port))):
            self.ctl("config", "set", key, value)
        run([options.syncd, "--once"])
        self.ctl("web", "passwd", "admin", stdin=PASSWORD + "\n")
        self.ctl("web", "start")
        self.daemon = subprocess.Popen([options.syncd, "--interval", "86400"],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.url = f"http://127.0.0.1:{self.admin_port}"

    def ctl(self, *arguments, stdin=None):
        return run([self.options.ctl, *arguments], stdin=stdin).stdout

    def status(self):
        return json.loads(self.ctl("status", "--json"))

    def close(self):
        self.daemon.terminate()
        self.daemon.wait(timeout=30)
        run([self.options.ctl, "web", "stop"], check=False)
        run([self.options.sample, "stop", "--dir", self.upstream], check=False)


def browser():
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                     "--disable-dev-shm-usage", "--window-size=1280,1100"):
        options.add_argument(argument)
    options.binary_location = "/usr/bin/chromium"
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    return driver


def rows(driver):
    return driver.find_elements(By.CSS_SELECTOR, "#product-table tbody tr")


def click(driver, selector, key=None):
    """Clicks what the selector finds (or gives it the focus and presses key, as a keyboard
    user would), again if the table was redrawn under the click (a redraw between the focus
    and the key leaves the focus on the page's body, which takes no keys)."""
    for _ in range(10):
        try:
            found = driver.find_element(By.CSS_SELECTOR, selector)
            if key:
                driver.execute_script(
                    "arguments[0].scrollIntoView({block: 'center'}); arguments[0].focus();", found)
                driver.switch_to.active_element.send_keys(key)
            else:
                found.click()
            return
        except (StaleElementReferenceException, ElementNotInteractableException):
            time.sleep(0.2)
    raise AssertionError(f"{selector} kept changing under the click")


def mirror_state(driver, product):
    """The Mirror cell of the product's row as shown now (rows are redrawn at any time)."""
    return driver.execute_script(
        "const cell = document.querySelector(`#product-table tr[data-id='${arguments[0]}'] "
        "td.mirror`); return cell ? cell.textContent : null;", product)


def wait_loaded(driver, after=0):
    WebDriverWait(driver, 30).until(
        lambda d: int(d.find_element(By.TAG_NAME, "body").get_attribute("data-loaded") or 0)
        > after)
    return int(driver.find_element(By.TAG_NAME, "body").get_attribute("data-loaded"))


def check_page(mirror, driver, screenshots, axe):
    driver.get(mirror.url + "/")
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "login").is_displayed())
    driver.find_element(By.ID, "login-user").send_keys("admin")
    driver.find_element(By.ID, "login-password").send_keys(PASSWORD)
    driver.find_element(By.ID, "login-submit").click()
    loaded = wait_loaded(driver)
    violations = accessibility_violations(driver, axe)
    assert not violations, violations
    status = mirror.status()
    text = lambda element_id: driver.find_element(By.ID, element_id).text
    assert text("user") == "admin", text("user")
    assert text("product-count") == f"{status['products']} ({status['enabled']} enabled)", \
        (text("product-count"), status)
    assert text("sync-state") == status["syncState"]
    bars = driver.find_elements(By.CSS_SELECTOR, "#chart-mirror rect")
    assert len(bars) == len(status["productsByMirrorState"]), len(bars)
    driver.save_screenshot(os.path.join(screenshots, "page.png"))
    driver.find_element(By.ID, "dashboard").screenshot(os.path.join(screenshots, "dashboard.png"))

    assert len(rows(driver)) == status["products"], len(rows(driver))
    search = driver.find_element(By.ID, "filter-text")
    search.send_keys(PRODUCT)
    assert [row.get_attribute("data-id") for row in rows(driver)] == [PRODUCT]
    search.clear()
    search.send_keys(" ")
    Select(driver.find_element(By.ID, "filter-state")).select_by_value("NEW")
    listed_new = mirror.ctl("products", "--state", "NEW").strip().splitlines()[-1].split()[0]
    assert len(rows(driver)) == int(listed_new), (len(rows(driver)), listed_new)
    Select(driver.find_element(By.ID, "filter-state")).select_by_value("")
    driver.find_element(By.CSS_SELECTOR, "th[data-column='0']").click()
    ids = [row.get_attribute("data-id") for row in rows(driver)]
    assert ids == sorted(ids, reverse=True), "a second click sorts the other way"
    click(driver, "th[data-column='2']", Keys.ENTER)
    versions = driver.execute_script(
        "return [...document.querySelectorAll('#product-table tbody tr')]"
        ".map((row) => row.cells[3].textContent);")
    as_numbers = [tuple(int(part) for part in re.findall(r"\d+", v)) for v in versions]
    assert as_numbers == sorted(as_numbers), f"versions sort as numbers, by keyboard: {versions}"

    # Remove asks first; a selection the filter hides is never acted on.
    other = ids[0]
    search.clear()
    search.send_keys(other)
    click(driver, f"tr[data-id='{other}'] input[type=checkbox]")
    before = spool(mirror.root)
    driver.find_element(By.CSS_SELECTOR, "button[data-action='remove']").click()
    alert = WebDriverWait(driver, 10).until(expected_conditions.alert_is_present())
    assert alert.text == "Remove the files of 1 product?", alert.text
    alert.dismiss()
    WebDriverWait(driver, 10).until(lambda d: text("message") == "Nothing was posted.")
    search.clear()
    search.send_keys(PRODUCT)
    driver.find_element(By.CSS_SELECTOR, "button[data-action='mirror']").click()
    WebDriverWait(driver, 10).until(lambda d: "hidden by the filter" in text("message"))
    assert spool(mirror.root) == before, "nothing hidden was posted"

    search.clear()
    search.send_keys(PRODUCT)
    assert mirror_state(driver, PRODUCT) == "DoNotMirror"
    click(driver, f"tr[data-id='{PRODUCT}'] input[type=checkbox]")
    driver.find_element(By.CSS_SELECTOR, "button[data-action='mirror']").click()
    WebDriverWait(driver, 20).until(lambda d: "Posted: mirror 1 product" in text("message"))
    assert "ondrd_syncd carries it out within seconds" in text("message"), text("message")
    assert "1 selected but hidden by the filter were left out" in text("message"), text("message")
    assert re.search(rf"admin \(page\) +mirror +{PRODUCT}\n", mirror.ctl("log")), mirror.ctl("log")
    driver.find_element(By.ID, "sync-now").click()
    WebDriverWait(driver, 20).until(lambda d: "Sync requested" in text("message"))
    deadline = time.time() + 120
    while time.time() < deadline:
        driver.find_element(By.ID, "refresh").click()
        loaded = wait_loaded(driver, loaded)
        if mirror_state(driver, PRODUCT) == "Mirrored":
            break
        time.sleep(1)
    assert mirror_state(driver, PRODUCT) == "Mirrored", "the product never became Mirrored"
    # The chart has a bar for each pass (the history is recorded just after a pass's work).
    def bars_match(_):
        passes = re.search(r"^ondrel_passes_total (\d+)$", mirror.ctl("metrics"), re.M).group(1)
        driver.find_element(By.ID, "refresh").click()
        wait_loaded(driver)
        bars = driver.find_elements(By.CSS_SELECTOR, "#chart-history-seconds rect")
        return len(bars) == int(passes) >= 2
    WebDriverWait(driver, 30, poll_frequency=1).until(bars_match)
    assert not driver.find_element(By.ID, "health-banner").is_displayed(), "a healthy server"
    assert json.loads(mirror.ctl("product", PRODUCT, "--json"))["mirror"] == "Mirrored"

    # Settings with ondrelctl's checks and messages; those that shape the web server only there.
    def set_from_page(key, value):
        for _ in range(10):
            try:
                field = driver.find_element(
                    By.CSS_SELECTOR, f"#settings-table tr[data-key='{key}'] input")
                field.clear()
                field.send_keys(value)
                driver.find_element(
                    By.CSS_SELECTOR, f"#settings-table tr[data-key='{key}'] button").click()
                return
            except StaleElementReferenceException:
                time.sleep(0.2)
        raise AssertionError("the settings kept being redrawn")
    set_from_page("hookTimeout", "99999")
    refused = run([mirror.options.ctl, "config", "set", "hookTimeout", "99999"], check=False)
    WebDriverWait(driver, 10).until(
        lambda d: text("message") == refused.stderr.strip().removeprefix("ondrelctl: "))
    set_from_page("hookTimeout", "90")
    WebDriverWait(driver, 10).until(lambda d: text("message") == "hookTimeout set.")
    assert mirror.ctl("config", "get", "hookTimeout").strip() == "90"
    assert driver.find_element(
        By.CSS_SELECTOR, "#settings-table tr[data-key='portToUse'] input").get_attribute("disabled")
    assert re.search(r"admin \(page\) +set +hookTimeout=90\n", mirror.ctl("log")), mirror.ctl("log")

    # A staged rollout: with rings defined, a product enabled now is on its way through them, and
    # the page acts on it as its user.
    mirror.ctl("rings", "set", "pilot", "--blocks", "10.0.0.0/8")
    mirror.ctl("rings", "set", "broad", "--delay", "3d", "--share", "100")
    mirror.ctl("enable", PRODUCT)
    hold = f"#rollout-table button[aria-label='Hold: {PRODUCT}']"
    # The row is read in the same look that finds it: the table may be drawn again at any time.
    def rolling_out(_):
        driver.find_element(By.ID, "refresh").click()
        wait_loaded(driver)
        if not driver.find_elements(By.CSS_SELECTOR, hold):
            return None
        return driver.find_element(By.CSS_SELECTOR, "#rollout-table tbody tr").text
    row = WebDriverWait(driver, 60, poll_frequency=1,
                        ignored_exceptions=[StaleElementReferenceException]).until(rolling_out)
    assert row.startswith(f"{PRODUCT} pilot broad, "), row
    click(driver, hold)
    WebDriverWait(driver, 10).until(lambda d: text("message").startswith(f"Posted: hold {PRODUCT}"))
    WebDriverWait(driver, 60, poll_frequency=1).until(
        lambda d: re.search(rf"{PRODUCT} +hold +by admin \(page\)", mirror.ctl("rings", "status")))
    driver.find_element(By.ID, "rollout").screenshot(os.path.join(screenshots, "rollout.png"))

    # The detail by keyboard: it takes the focus, and Escape gives it back to the product's link.
    link = f"tr[data-id='{PRODUCT}'] td.id a"
    click(driver, link, Keys.ENTER)
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "detail").is_displayed())
    assert driver.switch_to.active_element.get_attribute("id") == "detail-close"
    driver.switch_to.active_element.send_keys(Keys.ESCAPE)
    assert not driver.find_element(By.ID, "detail").is_displayed()
    assert driver.switch_to.active_element.text == PRODUCT, "the focus is back on the link"
    click(driver, link, Keys.ENTER)
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "detail").is_displayed())
    violations = accessibility_violations(driver, axe)
    assert not violations, f"with the detail open: {violations}"
    files = driver.find_elements(By.CSS_SELECTOR, "#detail-files tbody tr")
    assert files and all(f.find_elements(By.TAG_NAME, "td")[2].text == "yes" for f in files)
    search.clear()
    search.send_keys(" ")
    driver.execute_script("window.scrollTo(0, document.getElementById('products').offsetTop)")
    driver.save_screenshot(os.path.join(screenshots, "products.png"))

    driver.find_element(By.ID, "logout").click()
    WebDriverWait(driver, 20).until(lambda d: d.find_element(By.ID, "login").is_displayed())
    driver.get(mirror.url + "/")
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "login").is_displayed())
    assert not driver.find_element(By.ID, "app").is_displayed(), "the session outlived the logout"


def accessibility_violations(driver, axe):
    """The serious and critical violations axe-core finds on the page as it is now."""
    with open(axe, encoding="utf-8") as source:
        driver.execute_script(source.read())
    found = driver.execute_async_script(
        "const done = arguments[arguments.length - 1];"
        "axe.run(document, { resultTypes: ['violations'] }).then((result) => done("
        "result.violations.filter((v) => v.impact === 'serious' || v.impact === 'critical')"
        ".map((v) => `${v.id} (${v.impact}): ${v.nodes.map((n) => n.target.join(' ')).join(', ')}`)));")
    return found


def check_logins(mirror):
    """Refused logins are logged for fail2ban; a logout or a deleted user ends the session."""
    assert request(mirror.url + "/api/status")[0] == 401
    assert request(f"http://127.0.0.1:{mirror.client_port}/api/status")[0] == 404, \
        "the page is never on the clients' port"
    assert login(mirror.url, "admin", "wrong-password")[0] == 401
    assert login(mirror.url, "nobody", PASSWORD)[0] == 401
    assert login(mirror.url, "admin", PASSWORD, origin="http://elsewhere.example")[0] == 403
    log = open(os.path.join(mirror.root, "Library/Server/Ondrel/Status/httpd_error.log")).read()
    # As fail2ban's stock apache-auth filter reads them.
    for line in ('user admin: authentication failure for "/api/login": Password Mismatch',
                 "user nobody not found: /api/login"):
        assert re.search(r"^\[\w{3} \w{3} \d\d \d\d:\d\d:\d\d\.\d{6} \d{4}\] \[ondrel_admin:error\] "
                         r"\[pid \d+\] \[client 127\.0\.0\.1:\d+\] " + re.escape(line) + "$",
                         log, re.MULTILINE), (line, log)
    mirror.ctl("web", "passwd", "other", stdin=PASSWORD + "\n")
    for user, end in (("admin", "logout"), ("other", "delete")):
        status, cookie, token = login(mirror.url, user, PASSWORD)
        assert status == 200
        assert request(mirror.url + "/api/session", headers={"Cookie": cookie})[0] == 200
        if end == "logout":
            assert request(mirror.url + "/api/logout", b"",
                           {"Cookie": cookie, "X-Ondrel-Token": token})[0] == 200
        else:
            mirror.ctl("web", "passwd", "--delete", user)
        assert request(mirror.url + "/api/session", headers={"Cookie": cookie})[0] == 401, end


def check_refusals(mirror):
    status, cookie, token = login(mirror.url, "admin", PASSWORD)
    assert status == 200
    other_cookie = login(mirror.url, "admin", PASSWORD)[1]
    unknown_cookie = "ondrel_session=" + "0" * 32
    form = "application/x-www-form-urlencoded"
    before = spool(mirror.root)
    for headers, data, expected in (
            ({"Cookie": cookie, "X-Ondrel-Token": "forged"}, b"action=mirror&id=VT-000004", 403),
            ({"Cookie": cookie}, b"action=mirror&id=VT-000004", 403),
            ({"Cookie": other_cookie, "X-Ondrel-Token": token}, b"action=mirror&id=VT-000004",
             403),
            ({"Cookie": unknown_cookie, "X-Ondrel-Token": token}, b"action=mirror&id=VT-000004",
             401),
            ({"Cookie": cookie, "X-Ondrel-Token": token}, b"action=mirror&id=../../etc", 400),
            ({"Cookie": cookie, "X-Ondrel-Token": token}, b"action=mirror&id=VT-999999", 400),
            ({"Cookie": cookie, "X-Ondrel-Token": token}, b"action=format&id=VT-000004", 400),
            ({"Cookie": cookie, "X-Ondrel-Token": token}, b"action=mirror&id=%ZZ", 400),
            ({"Cookie": cookie, "X-Ondrel-Token": token}, b"id=" * 200000, 413)):
        headers["Content-Type"] = form
        status, body, _ = request(mirror.url + "/api/changes", data, headers)
        assert status == expected, (headers, data[:40], status, body)
        assert "error" in json.loads(body), body
    status, _, _ = request(mirror.url + "/api/changes", headers={"Cookie": cookie})
    assert status == 404, "a GET changes nothing"
    assert request(mirror.url + "/api/product?id=%2e%2e%2fetc", headers={"Cookie": cookie})[0] == 400
    assert spool(mirror.root) == before, "a refused request posted something"


def main():
    parser = argparse.ArgumentParser()
    for name in ("ctl", "syncd", "sample", "resources", "screenshots", "axe"):
        parser.add_argument(f"--{name}", required=True)
    options = parser.parse_args()
    os.makedirs(options.screenshots, exist_ok=True)
    folder = tempfile.mkdtemp(prefix="ondrel-browser-")
    os.chmod(folder, 0o755)
    mirror = None
    driver = None
    try:
        mirror = Mirror(options, folder)
        check_logins(mirror)
        check_refusals(mirror)
        driver = browser()
        check_page(mirror, driver, options.screenshots, options.axe)
    finally:
        if driver:
            driver.quit()
        if mirror:
            mirror.close()
        shutil.rmtree(folder, ignore_errors=True)
    print("The administration page works in Chromium; screenshots in", options.screenshots)


if __name__ == "__main__":
    sys.exit(main())
