#!/usr/bin/env python3
"""The operators' page in a browser: typed into, on screens of three widths, and without scripts.

QUENOR_PAGE_PICTURES=FOLDER keeps the screens as pictures: ./dev page-pictures."""
import base64
import http.client
import os
import shutil
import subprocess
import unittest

import page_test
from page_test import support, tier, wait_for

try:
    from selenium import webdriver
    from selenium.common.exceptions import StaleElementReferenceException
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select, WebDriverWait
    from selenium.webdriver.chrome.service import Service
except ImportError:
    webdriver = None

PROGRAM = os.environ["QUENOR_NETWORK_PROGRAM"]
NEEDED = bool(os.environ.get("QUENOR_NEED_BROWSER"))
PICTURES = os.environ.get("QUENOR_PAGE_PICTURES")
WIDTHS = (360, 800, 1400)
PICTURE_HEIGHT = 900
DEFAULT_INTERVAL_MS = 10_000  # Of reports, before a server has said anything.


class Channel:
    """A real channel, which posts through nginx."""

    def __init__(self, nginx):
        self.process = subprocess.Popen([PROGRAM, f"https://127.0.0.1:{nginx.port}/app", "1", "-", nginx.cert],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.sent = 0
        self.do("start")

    def do(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().strip()

    def send(self):
        """Returns when it is acknowledged, which is before the rest of the answer is heeded."""
        self.sent += 1
        self.do("send 1")
        self.do(f"wait acknowledged {self.sent}")

    def interval_ms(self):
        """What GetReportInterval() says."""
        return int(self.do("interval"))

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait()


class BrowserTest(page_test.PageCase):
    def setUp(self):
        missing = [name for name, found in (("chromium", shutil.which("chromium")),
                                            ("chromium-driver", shutil.which("chromedriver")),
                                            ("python3-selenium", webdriver)) if not found]
        if missing and not NEEDED:
            print(f"\nSKIPPED: {self._testMethodName}: {', '.join(missing)} not installed", flush=True)
            self.skipTest("no browser")
        self.assertEqual([], missing)
        super().setUp()

    def start_browser(self):
        options = webdriver.ChromeOptions()
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--disable-dev-shm-usage",
                     "--no-proxy-server", f"--user-data-dir={self.folder}/browser"):
            options.add_argument(word)
        self.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
        self.addCleanup(self.browser.quit)

    def set_up_tier(self, nodes):
        self.set_up(nodes, collectors=2)
        self.nginx = tier.Nginx(self.folder, self.collectors)
        self.addCleanup(self.nginx.kill)
        self.nginx.start()
        self.start_browser()

    def wait(self, ready):
        """Asks until it is so, also of a page that is just being replaced."""
        return WebDriverWait(self.browser, support.PATIENCE_S,
                             ignored_exceptions=[StaleElementReferenceException]).until(ready)

    def find(self, selector):
        """The first such element, once it is there and to be seen."""
        def ask(browser):
            found = browser.find_elements(By.CSS_SELECTOR, selector)
            return found[0] if found and found[0].is_displayed() else None
        return self.wait(ask)

    def wait_shown(self, part):
        self.wait(lambda browser: part in browser.find_element(By.TAG_NAME, "body").text)

    def type(self, name, value):
        field = self.find(f"#{name}")
        field.clear()
        field.send_keys(value)

    def change(self, value):
        """Types a report duration, confirms it, and returns the revision."""
        self.browser.get(self.page.url())
        self.type("report_duration_s", str(value))
        self.find("form button").click()
        self.find("#confirm")
        self.wait_shown(str(value))
        before = self.revision()
        self.find("#confirm").click()
        text = self.find("#done").text
        self.assertEqual(f"Revision {self.revision()} is set.", text)
        self.assertLess(before, self.revision())
        return self.revision()

    def change_reaches(self, channel, value):
        revision = self.change(value)
        for collector in self.collectors:
            wait_for("the revision", lambda: collector.metric("control_revision") == revision)
        self.assertEqual(DEFAULT_INTERVAL_MS, channel.interval_ms())
        channel.send()
        wait_for("the interval", lambda: channel.interval_ms() == value * 1000)

    def test_change_reaches_a_channel(self):
        self.set_up_tier(nodes=1)
        channel = Channel(self.nginx)
        self.addCleanup(channel.close)
        channel.send()
        self.change_reaches(channel, 300)
        # The page shows it by itself, while another change is being typed.
        self.find("a").click()
        self.type("capacity", "7000")
        self.assertEqual(0, self.tool("control", "policy", "none", "--capacity", "6000")[0])
        self.wait_shown(f"Control: revision {self.revision()}")
        self.assertEqual("7000", self.find("#capacity").get_attribute("value"))
        self.assertEqual([], self.browser.get_log("browser"), "nothing is blocked, missing or failing")
        self.find("form button").click()
        self.wait_shown(f"Revision {self.revision()} has been set meanwhile.")
        self.assertEqual("6000", self.find("#capacity").get_attribute("value"))
        # What cannot be meant is said, and an interval is warned of.
        self.type("send_interval_ms", "14999")
        self.find("form button").click()
        self.wait_shown("give at least 15000")
        self.type("send_interval_ms", "15000")
        Select(self.find("#policy")).select_by_visible_text("none")
        self.find("form button").click()
        self.wait_shown("An interval is for ever")

    def test_works_without_scripts(self):
        self.set_up_tier(nodes=1)
        self.browser.execute_cdp_cmd("Emulation.setScriptExecutionDisabled", {"value": True})
        channel = Channel(self.nginx)
        self.addCleanup(channel.close)
        self.change_reaches(channel, 240)
        self.find("a").click()

        def look_again(_):
            self.find("noscript a").click()
            return "revision 1" in self.browser.find_element(By.CSS_SELECTOR, "main").text
        self.wait(look_again)

    def test_silence_is_told(self):
        """Also of what ends no connection; and a page that has found its server again says so by itself."""
        self.set_up_tier(nodes=1)
        self.browser.get(self.page.url())
        self.wait_shown("All is well.")
        self.wait_event()
        shown = self.find("main p")
        self.wait_event()
        self.assertEqual("All is well.", shown.text, "nothing has changed, so nothing was replaced")
        self.page.pause()
        self.find("#lost")
        self.page.go_on()
        self.wait(lambda browser: not browser.find_element(By.ID, "lost").is_displayed())

        # While others take all the events it asks again and again.
        self.browser.get("about:blank")
        links = []
        for _ in range(16):
            links.append(http.client.HTTPConnection("127.0.0.1", self.page.port, timeout=support.PATIENCE_S))
            self.addCleanup(links[-1].close)
            wait_for("room", lambda: self.take_events(links[-1]))
        self.browser.get(self.page.url())
        self.find("#lost")
        for link in links:
            link.close()
        self.wait(lambda browser: not browser.find_element(By.ID, "lost").is_displayed())

    def wait_event(self):
        time = self.find("#time").text
        self.wait(lambda browser: browser.find_element(By.ID, "time").text != time)

    @staticmethod
    def take_events(link):
        link.request("GET", "/events")
        answer = link.getresponse()
        if answer.status != 200:
            answer.read()
            return None
        return answer

    def look(self, name, width, scheme, is_pictured):
        """The page on such a screen: nothing sticks out, and it is as light or dark as it should."""
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": PICTURE_HEIGHT, "deviceScaleFactor": 1, "mobile": width < 500})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        seen = self.browser.execute_script("""
            const root = document.documentElement;
            const out = [...document.querySelectorAll("body *")].filter((each) => {
              const box = each.getBoundingClientRect();
              return box.width > 1 && (box.right > innerWidth + 0.5 || box.left < -0.5);
            });
            return {inner: innerWidth, scroll: root.scrollWidth, out: out.map((each) => each.outerHTML),
                    ground: getComputedStyle(document.body).backgroundColor};""")
        where = f"{name}, {width} px, {scheme}"
        self.assertEqual(width, seen["inner"], where)
        self.assertLessEqual(seen["scroll"], width, where)
        self.assertEqual([], seen["out"], where)
        brightness = sum(int(part) for part in seen["ground"][4:-1].split(","))
        self.assertEqual(scheme == "dark", brightness < 3 * 128, where)
        if PICTURES and is_pictured:
            shot = self.browser.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})
            with open(os.path.join(PICTURES, f"{name}-{width}-{scheme}.png"), "wb") as file:
                file.write(base64.b64decode(shot["data"]))

    def look_at_all(self, name, is_pictured=False):
        for width in WIDTHS:
            for scheme in ("light", "dark"):
                self.look(name, width, scheme, is_pictured)

    def red_of(self, selector):
        """By how much such an element is more red than anything else."""
        color = self.browser.execute_script(
            "return getComputedStyle(document.querySelector(arguments[0])).color", selector)
        red, green, blue = (int(part) for part in color[4:-1].split(","))
        return red - max(green, blue)

    def test_readable_on_every_screen(self):
        self.set_up_tier(nodes=3)
        senders = [support.Sender([self.collectors[number % 2].port], f"s{number}", size=1000, pause_s=0.01)
                   for number in range(4)]
        for sender in senders:
            self.addCleanup(sender.join)
            self.addCleanup(sender.enough.set)
            sender.start()
        self.assertEqual(0, self.tool("control", "set", "--report-duration", "300")[0])
        wait_for("answers", lambda: sum(each.metric("reports_stored_total") for each in self.collectors) > 500)
        self.browser.get(self.page.url())
        self.wait_shown("All is well.")
        self.look_at_all("calm", is_pictured=True)
        self.assertEqual([], self.browser.find_elements(By.CSS_SELECTOR, "main .bad"))

        self.type("send_interval_ms", "15000")
        self.find("form button").click()
        self.wait_shown("An interval is for ever")
        self.look_at_all("confirm")
        self.find("#confirm").click()
        self.find("#done")
        self.look_at_all("done")
        self.find("a").click()
        self.wait_shown(f"Control: revision {self.revision()}")
        self.browser.get(self.page.url())
        self.type("report_duration_s", "9" * 60)
        self.find("form button").click()
        self.wait_shown("not a whole number")
        self.look_at_all("not-changed")
        self.browser.get(self.page.url() + "nothing")
        self.wait_shown("Refused")
        self.look_at_all("refused")

        self.browser.get(self.page.url())
        self.nodes[2].kill()
        self.wait_shown(f"node {self.nodes[2].page()} does not answer")
        self.look_at_all("dead-node", is_pictured=True)
        self.assertGreater(self.red_of("main td.bad"), 60)
        self.page.kill()
        self.wait_shown("This page has lost its server")


if __name__ == "__main__":
    unittest.main()
