#!/usr/bin/env python3
"""The page of `krfilter serve` in a real browser (headless Chromium through
Selenium), checked against the command-line tool.

usage: serve_browser_test.py PATH_TO_KRFILTER DATA_DIR ARTEFACT_DIR [--skip REASON]

Exit status 77 means skipped (no browser here, or --skip given); the reason is
printed. Screenshots go to ARTEFACT_DIR."""

import os
import shutil
import sys
import tempfile
import urllib.request

from serve_support import Server, info_fields, tool_catalogue, tool_result

SKIPPED = 77
WAIT = 180  # seconds; a sanitizer build runs filters several times slower


def skip(reason):
    print(f"SKIP: {reason}")
    return SKIPPED


def fetch(url):
    with urllib.request.urlopen(url, timeout=300) as response:
        return response.read()


class Page:
    def __init__(self, driver, server):
        from selenium.webdriver.common.by import By
        from selenium.webdriver.support.ui import WebDriverWait
        self.driver, self.server, self.by = driver, server, By
        self.wait = WebDriverWait(driver, WAIT)

    def element(self, css):
        return self.driver.find_element(self.by.CSS_SELECTOR, css)

    def elements(self, css):
        return self.driver.find_elements(self.by.CSS_SELECTOR, css)

    def script(self, code, *arguments):
        return self.driver.execute_script(code, *arguments)

    def choose(self, name):
        button = next(b for b in self.elements(".filter-entry") if b.get_attribute("data-name") == name)
        button.click()
        self.wait.until(lambda _: self.element("#dialog-title").text == name)

    def run(self):
        """Presses Run and returns (code, message) once the page shows the outcome and its pictures."""
        self.script("delete document.getElementById('result-code').dataset.code")
        self.element("#run").click()
        self.wait.until(lambda _: self.element("#result-code").get_attribute("data-code") is not None)
        code = int(self.element("#result-code").get_attribute("data-code"))
        if code == 0:
            self.wait_for_pictures("#before", "#after", "#difference")
        return code, self.element("#result-code").text

    def wait_for_pictures(self, *selectors):
        self.wait.until(lambda _: all(self.script(
            "const image = document.querySelector(arguments[0]);"
            "return image.complete && image.naturalWidth > 0", css) for css in selectors))


def check(condition, message):
    if not condition:
        raise AssertionError(message)
    print(f"ok: {message}")


def drive(page, krfilter, data_dir, artefacts, scratch):
    expected = tool_catalogue(krfilter)
    page.driver.get(page.server.url)
    page.wait.until(lambda _: page.script("return document.body.dataset.ready === 'true'"))
    page.wait_for_pictures("#before")

    listed = [b.get_attribute("data-name") for b in page.elements(".filter-entry")]
    check(len(listed) == 36 and sorted(listed) == sorted(expected), "the filter list holds the 36 catalogue names")
    families = [h.text for h in page.elements("nav h3")]
    check(len(families) == len(set(families)) >= 4, f"the list is grouped by family: {families}")

    # Names are shown exactly as catalogued, trailing blank included.
    page.choose("unsharp")
    shown = page.script("return [...document.querySelectorAll('#parameters .param-name')].map(e => e.textContent)")
    check(shown == [f[1] for f in info_fields(krfilter, "unsharp")] and shown[0] == "Intensity ",
          f"unsharp's dialog names its parameters exactly: {shown}")

    # A real radiograph through the upload field, filtered with a value typed into the dialog.
    leg = os.path.join(data_dir, "cr-leg-10bit.png")
    page.element("#upload").send_keys(os.path.abspath(leg))
    page.wait.until(lambda _: "good" in page.element("#upload-message").get_attribute("class") or
                    "bad" in page.element("#upload-message").get_attribute("class"))
    check("cr-leg-10bit.png" in page.element("#image-info").text and "1760" in page.element("#image-info").text,
          f"the upload opened: {page.element('#image-info').text}")
    page.choose("median2D")
    (_, name, kind, low, high, default), = info_fields(krfilter, "median2D")
    field = page.element("#param-0")
    attributes = [field.get_attribute(a) for a in ("min", "max", "step", "value")]
    check(attributes == [low, high, "1", default], f"median2D's oddnum field carries the catalogue's {attributes}")
    field.clear()
    field.send_keys("5")
    code, message = page.run()
    check(code == 0 and "success" in message and "samples changed" in message, f"median2D ran: {message}")
    result_png = fetch(page.element("#download").get_attribute("href"))
    with open(leg, "rb") as f:
        check(result_png == tool_result(krfilter, scratch, "median2D", f.read(), ["oddnum=5"]),
              "the downloaded result equals `krfilter run median2D ... oddnum=5` on the radiograph")
    page.driver.save_screenshot(os.path.join(artefacts, "serve-radiograph.png"))

    from selenium.webdriver.common.keys import Keys
    window = page.element("#window")
    window.clear()
    window.send_keys("1200", Keys.ENTER)
    page.wait.until(lambda _: "window=1200&" in page.element("#before").get_attribute("src") and
                    "window=1200&" in page.element("#after").get_attribute("src"))
    page.wait_for_pictures("#before", "#after")
    check(page.element("#window-range").get_attribute("value") == "1200",
          "the window control redraws both views and moves its slider")

def main():
    if len(sys.argv) < 4:
        print(__doc__)
        return 2
    krfilter, data_dir, artefacts = (os.path.abspath(a) for a in sys.argv[1:4])
    if "--skip" in sys.argv:
        return skip(sys.argv[sys.argv.index("--skip") + 1])
    try:
        from selenium import webdriver
        from selenium.common.exceptions import WebDriverException
        from selenium.webdriver.chrome.service import Service
    except ImportError as error:
        return skip(f"Selenium is not installed for {sys.executable} ({error}); scripts/install-deps.sh adds it")
    chromium, chromedriver = shutil.which("chromium"), shutil.which("chromedriver")
    if not chromium or not chromedriver:
        return skip("chromium or chromedriver is not installed; scripts/install-deps.sh adds them")
    os.makedirs(artefacts, exist_ok=True)

    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                     "--window-size=1280,860", "--hide-scrollbars"):
        options.add_argument(argument)
    with Server(krfilter) as server, tempfile.TemporaryDirectory() as scratch:
        try:
            driver = webdriver.Chrome(service=Service(chromedriver), options=options)
        except WebDriverException as error:
            return skip(f"the browser could not be started: {error.msg}")
        try:
            drive(Page(driver, server), krfilter, data_dir, artefacts, scratch)
        finally:
            driver.quit()
    print(f"screenshots in {artefacts}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
