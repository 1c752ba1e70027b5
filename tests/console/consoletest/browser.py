"""A headless chromium, and what a test asks of a page."""
import time

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

WAIT = 20.0   # seconds for what must come about
PAUSE = 0.1
DESK, PHONE = (1440, 900), (390, 844)  # px


class Browser:
    """One window of it. Every wait is bounded and says what did not come."""

    def __init__(self):
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                         "--disable-gpu", "--hide-scrollbars", "--no-proxy-server"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    def quit(self):
        self.driver.quit()

    def fresh(self, size=DESK, dark=False):
        """Nothing open, nothing remembered."""
        self.driver.get("about:blank")
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": size[0], "height": size[1], "deviceScaleFactor": 1,
            "mobile": size[0] < DESK[0]})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce"}]})
        self.driver.get_log("browser")

    def complain_of_errors(self):
        """AssertionError when a script failed or the page's policy refused something."""
        said = [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE" and "WebSocket" not in entry["message"]]
        assert not said, said

    def open(self, console, view="ap"):
        """A view of a console, once the page has its state."""
        self.driver.get("about:blank")
        self.driver.get(f"{console.url}#{view}")
        self.until(lambda: self.script("return Boolean(window.consolePage?.state)"),
                   "the page has a state")

    def go(self, view):
        self.script("location.hash = arguments[0]", view)
        self.until(lambda: self.script("return document.body.dataset.view") == view, view)

    def script(self, text, *arguments):
        return self.driver.execute_script(text, *arguments)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        found = self.all(selector)
        assert len(found) == 1, f"{len(found)} elements for {selector}"
        return found[0]

    def text(self, selector):
        """As a person reads it, whether scrolled to or not."""
        return self.script("return [...document.querySelectorAll(arguments[0])]"
                           ".map((node) => node.innerText).join('\\n')", selector)

    def press(self, selector):
        element = self.one(selector)
        self.script("arguments[0].scrollIntoView({block: 'center'})", element)
        element.click()

    def keys(self, *keys, selector="body"):
        self.one(selector).send_keys(*keys)

    def keys_to_focus(self, *keys):
        """To whatever has the focus at that moment: a table may just be made anew."""
        webdriver.ActionChains(self.driver).send_keys(*keys).perform()

    def fill(self, selector, text):
        element = self.one(selector)
        element.send_keys(Keys.CONTROL, "a")
        element.send_keys(text)

    def choose(self, selector, value):
        Select(self.one(selector)).select_by_value(value)

    def until(self, condition, what, seconds=WAIT):
        """What `condition()` returns once it is true."""
        end = time.monotonic() + seconds
        while True:
            try:
                result = condition()
            except StaleElementReferenceException:
                result = None
            if result:
                return result
            if time.monotonic() > end:
                raise AssertionError(f"not within {seconds:g} s: {what}\n"
                                     f"{self.text('body')[:3000]}")
            time.sleep(PAUSE)

    def until_text(self, selector, *parts):
        self.until(lambda: all(part in self.text(selector) for part in parts),
                   f"{parts} in {selector}")

    def shot(self, path):
        self.driver.save_screenshot(str(path))
