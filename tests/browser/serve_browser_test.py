#!/usr/bin/python3
"""tse-check serve as people use it, in headless Chromium driven by Selenium.

On a desktop: upload an export through the page, watch its progress, read
the verdict and download the JSON. On a phone (390 x 844 CSS pixels):
photograph a receipt through the camera input and read VALID, scan codes
one after another into the scanner field, and nothing scrolls sideways,
neither the pages nor the --html reports. Screenshots of both are kept in
the build tree. Every request goes to 127.0.0.1; a machine without
Selenium or chromedriver reports the test as skipped (exit 77).

Arguments: TSE_CHECK MAKE_EXPORT SOURCE_DIR ARTEFACTS_DIR
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

SKIP = 77


def skip(reason):
    print("SKIPPED: " + reason)
    sys.exit(SKIP)


try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.chrome.service import Service
except ImportError:
    skip("python3-selenium is not installed (scripts/test installs it)")

DRIVER = shutil.which("chromedriver") or "/usr/bin/chromedriver"
if not os.access(DRIVER, os.X_OK) or not shutil.which("chromium"):
    skip("chromium or chromium-driver is not installed (scripts/test installs them)")

TSE_CHECK, MAKE_EXPORT, SOURCE, ARTEFACTS = (os.path.realpath(a) for a in sys.argv[1:5])
REAL = os.path.join(SOURCE, "tests/data/real-exports")
failures = []


def check(condition, what):
    print(("ok    " if condition else "FAIL  ") + what)
    if not condition:
        failures.append(what)


def wait(condition, seconds=120, step=0.1):
    end = time.time() + seconds
    while time.time() < end:
        value = condition()
        if value:
            return value
        time.sleep(step)
    return None


class Server:
    def __init__(self, tmp):
        self.tmp = os.path.join(tmp, "server")
        os.makedirs(self.tmp)
        env = dict(os.environ, TMPDIR=self.tmp)
        self.out = open(os.path.join(tmp, "serve.out"), "w+")
        self.process = subprocess.Popen([TSE_CHECK, "serve", "--listen", "127.0.0.1:0", "--jobs", "2"],
                                        stdout=self.out, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, env=env)
        found = wait(lambda: re.search(r"http://127\.0\.0\.1:(\d+)/", open(self.out.name).read()), 20)
        if not found:
            self.stop()
            raise SystemExit("the server did not start")
        self.url = "http://127.0.0.1:%s" % found.group(1)

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(15)
        except subprocess.TimeoutExpired:
            self.process.kill()


def browser(profile, downloads, phone):
    options = webdriver.ChromeOptions()
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--user-data-dir=" + profile):
        options.add_argument(flag)
    options.add_experimental_option("prefs", {"download.default_directory": downloads,
                                              "download.prompt_for_download": False})
    if phone:
        options.add_experimental_option("mobileEmulation", {
            "deviceMetrics": {"width": 390, "height": 844, "pixelRatio": 3.0, "touch": True},
            "userAgent": "Mozilla/5.0 (iPhone; CPU iPhone OS 17_0 like Mac OS X) Mobile/15E148"})
    else:
        options.add_argument("--window-size=1280,1000")
    driver = webdriver.Chrome(service=Service(DRIVER), options=options)
    driver.set_page_load_timeout(120)
    return driver


def no_sideways_scroll(driver, what):
    width = driver.execute_script("return document.documentElement.scrollWidth")
    # The screen's width, not the window's: a phone's browser widens its
    # window to a page that is too wide, and zooms out.
    inner = driver.execute_script("return Math.min(window.innerWidth, screen.width)")
    check(width <= inner, "%s fits the screen (%s of %s CSS px)" % (what, width, inner))


def text_of(driver, selector):
    """The text of the first element, read at once: the page may reload between two steps."""
    try:
        return driver.execute_script("var e = document.querySelector(arguments[0]); return e ? e.textContent : null",
                                     selector)
    except Exception:  # the page was being replaced
        return None


def shot(driver, name):
    os.makedirs(ARTEFACTS, exist_ok=True)
    driver.save_screenshot(os.path.join(ARTEFACTS, name + ".png"))


def large_export(tmp):
    kept = os.path.join(os.path.dirname(TSE_CHECK), "test-data", "serve-6k.tar")
    if os.path.exists(kept):
        return kept
    path = os.path.join(tmp, "export.tar")
    subprocess.run([MAKE_EXPORT, "-o", path, "-n", "2000"], check=True, timeout=600)
    return path


def desktop(server, tmp):
    downloads = os.path.join(tmp, "downloads")
    os.makedirs(downloads)
    driver = browser(os.path.join(tmp, "profile-desktop"), downloads, False)
    try:
        driver.get(server.url + "/")
        check("Check what a TSE signed" in driver.page_source, "the start page opens")
        shot(driver, "serve-start-desktop")
        driver.find_element(By.NAME, "export").send_keys(large_export(tmp))
        driver.find_element(By.CSS_SELECTOR, "#export button[type=submit]").click()
        wait(lambda: driver.find_elements(By.ID, "bar") or driver.find_elements(By.CSS_SELECTOR, ".result"), 60)
        check(driver.find_elements(By.ID, "bar"), "the job's page shows a progress bar while it runs")
        lines = set()
        verdict = wait(lambda: lines.add(text_of(driver, "#progress-line")) or text_of(driver, "#audit .verdict"),
                       300, 0.05)
        lines.discard(None)
        check(any("logs checked" in line for line in lines), "the progress counts logs: %s" % sorted(lines)[:3])
        check(verdict and verdict.startswith("PASSED"), "the verdict is shown: %s" % verdict)
        shot(driver, "serve-result-desktop")
        driver.find_element(By.ID, "audit-json").click()
        downloaded = wait(lambda: os.path.exists(os.path.join(downloads, "audit.json")) and
                          not any(f.endswith(".crdownload") for f in os.listdir(downloads)), 60)
        document = json.load(open(os.path.join(downloads, "audit.json"))) if downloaded else {}
        logs = document.get("summary", {}).get("logs", 0)
        check(logs > 0 and "%d logs" % logs in verdict, "the downloaded JSON says what the page says")
        driver.find_element(By.ID, "audit-report").click()
        check(wait(lambda: driver.title.startswith("TSE export audit"), 60), "the --html report opens")
    finally:
        driver.quit()


def scan_codes(driver, server):
    driver.get(server.url + "/")
    scan = driver.find_element(By.ID, "scan")
    text = open(os.path.join(SOURCE, "samples/demo-receipt-qr-code.txt")).read().strip()
    for count, code in enumerate([text, text.replace("T11:28:58", "T12:28:58")], 1):
        scan.send_keys(code)
        wait(lambda: len(driver.find_elements(By.CSS_SELECTOR, "#scan-list .card")) >= count, 60)
    cards = driver.find_elements(By.CSS_SELECTOR, "#scan-list .card")
    words = [card.find_element(By.CSS_SELECTOR, ".big").text for card in cards]
    check(words == ["INVALID", "VALID"], "each scanned code gets its verdict, the latest on top: %s" % words)
    check(cards and "signed with log time" in cards[0].text, "an invalid code says what was signed")
    check(scan.get_attribute("value") == "", "the scanner field is cleared")
    check(driver.switch_to.active_element == scan, "the scanner field keeps the focus")


def reports_fit(driver, tmp):
    audit = os.path.join(tmp, "audit.html")
    subprocess.run([TSE_CHECK, "audit", "--no-progress", "--html", audit, os.path.join(REAL, "logMessages1.tar")],
                   stdout=subprocess.DEVNULL, timeout=300)
    bookkeeping = os.path.join(tmp, "dsfinvk.html")
    subprocess.run([TSE_CHECK, "dsfinvk", "--no-progress", "--html", bookkeeping,
                    os.path.join(SOURCE, "samples/demo-dsfinvk.zip"), "--tse",
                    os.path.join(REAL, "2021-09-30_63641_TSE.tar")], stdout=subprocess.DEVNULL, timeout=300)
    for name, page in (("the audit report", audit), ("the bookkeeping report", bookkeeping)):
        driver.get("file://" + page)
        no_sideways_scroll(driver, name)
        shot(driver, "report-phone-" + os.path.basename(page).split(".")[0])


def phone(server, tmp):
    downloads = os.path.join(tmp, "downloads-phone")
    os.makedirs(downloads)
    driver = browser(os.path.join(tmp, "profile-phone"), downloads, True)
    try:
        driver.get(server.url + "/")
        no_sideways_scroll(driver, "the start page")
        small = [b for b in driver.find_elements(By.TAG_NAME, "button") if b.size["height"] < 44]
        check(not small, "every button is large enough to tap")
        camera = driver.find_element(By.NAME, "image")
        check(camera.get_attribute("capture") == "environment", "the picture field opens the camera")
        camera.send_keys(os.path.join(SOURCE, "samples/demo-receipt.png"))
        camera.find_element(By.XPATH, "ancestor::form//button[@type='submit']").click()
        cards = wait(lambda: driver.find_elements(By.CSS_SELECTOR, "#cards .card"), 120)
        check(cards and cards[0].find_element(By.CSS_SELECTOR, ".big").text == "VALID", "the photographed receipt is VALID")
        check(cards and "DEMO-KASSE-01" in cards[0].text and "8.57" in cards[0].text, "the card shows register and amounts")
        no_sideways_scroll(driver, "the receipt's verdict")
        shot(driver, "serve-receipt-phone")
        scan_codes(driver, server)
        reports_fit(driver, tmp)
    finally:
        driver.quit()


def main():
    tmp = tempfile.mkdtemp(prefix="tse-serve-browser-")
    server = Server(tmp)
    try:
        desktop(server, tmp)
        phone(server, tmp)
    finally:
        server.stop()
        check(not os.listdir(server.tmp), "the stopped server left no file")
        shutil.rmtree(tmp, ignore_errors=True)
    print("%d failed" % len(failures) if failures else "all passed")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
