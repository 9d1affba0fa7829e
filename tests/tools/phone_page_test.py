#!/usr/bin/python3
"""The phone page in a real browser (Debian's chromium, headless, driven by
selenium): pairs with a code, chats with the stand-in, approves a tool request,
shows the computer offline, comes back after a hub restart, and signs out."""
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

from browser import chromium
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support import expected_conditions as when
from selenium.webdriver.support.ui import WebDriverWait

HUB = sys.argv.pop(1)


class Hub:
    """zuv-hub on a free port, or on a given one when it comes back."""

    def __init__(self, data, port=0):
        self.process = subprocess.Popen([HUB, "--listen", f"127.0.0.1:{port}", "--data", data, "--turn-delay", "0.05"],
                                        stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        self.url = re.search(r"http://127\.0\.0\.1:\d+", line).group(0)
        self.port = int(self.url.rsplit(":", 1)[1])

    def post(self, path, body, token=None):
        request = urllib.request.Request(self.url + path, data=json.dumps(body).encode(), method="POST",
                                         headers={"content-type": "application/json"})
        if token:
            request.add_header("authorization", f"Bearer {token}")
        with urllib.request.urlopen(request, timeout=10) as reply:
            return json.load(reply)

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class PhonePage(unittest.TestCase):
    def setUp(self):
        self.data = tempfile.TemporaryDirectory()
        self.hub = Hub(self.data.name)
        self.browser = chromium()
        self.wait = WebDriverWait(self.browser, 20)

    def tearDown(self):
        self.browser.quit()
        self.hub.stop()
        self.data.cleanup()

    def text_appears(self, selector, text):
        self.wait.until(when.text_to_be_present_in_element((By.CSS_SELECTOR, selector), text))

    def test_pairs_chats_approves_and_survives_a_restart(self):
        # The computer asks for a code; the page claims it as the phone does.
        start = self.hub.post("/pair/start", {"name": "Desk"})
        code = start["code"]
        self.browser.get(f"{self.hub.url}/#pair={code[:4]}-{code[4:]}")
        self.wait.until(when.visibility_of_element_located((By.ID, "code")))
        self.assertEqual(self.browser.find_element(By.ID, "code").get_attribute("value"), f"{code[:4]}-{code[4:]}")
        self.browser.find_element(By.CSS_SELECTOR, "#pair-form button").click()
        self.wait.until(when.visibility_of_element_located((By.ID, "app")))
        poll = self.hub.post("/pair/poll", {"code": code, "secret": start["secret"]})
        self.assertEqual(poll["status"], "paired")
        self.wait.until(lambda b: "live" in b.find_element(By.ID, "live").get_attribute("class"))

        # A chat: the message goes, the stand-in's reply comes rendered.
        self.browser.find_element(By.ID, "new-chat").click()
        box = self.browser.find_element(By.ID, "text")
        box.send_keys("How is the build?", Keys.ENTER)
        self.text_appears("#messages li.assistant", "Here is what I would do")
        self.assertTrue(self.browser.find_elements(By.CSS_SELECTOR, "#messages li.assistant table"))
        if os.environ.get("ZUV_PAGE_SCREENSHOT"):  # the README's picture
            self.browser.save_screenshot(os.environ["ZUV_PAGE_SCREENSHOT"])
        self.assertEqual(self.browser.find_element(By.CSS_SELECTOR, "#messages li.user").text, "How is the build?")

        # A tool request: the card comes, Allow answers it, the turn ends.
        box.send_keys("/tool Bash: ls -la", Keys.ENTER)
        allow = self.wait.until(when.element_to_be_clickable((By.XPATH, "//div[@class='request']//button[text()='Allow']")))
        self.assertIn("ls -la", self.browser.find_element(By.CSS_SELECTOR, ".request code").text)
        allow.click()
        self.text_appears("#messages", "Allowed.")
        self.wait.until(lambda b: not b.find_elements(By.CSS_SELECTOR, ".request"))

        # Hostile text stays text.
        box.send_keys("<img src=x onerror=alert(1)> **bold**", Keys.ENTER)
        self.wait.until(lambda b: any(li.text.startswith("<img src=x onerror=alert(1)>")
                                      for li in b.find_elements(By.CSS_SELECTOR, "#messages li.user")))
        self.assertFalse(self.browser.find_elements(By.CSS_SELECTOR, "#messages img"))

        # The computer's clipboard while its agent is away: said plainly.
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='clipboard']").click()
        self.text_appears("#app-error", "The computer is offline")

        # The hub goes away and comes back on its port: the page reconnects by itself.
        port = self.hub.port
        self.hub.stop()
        self.wait.until(lambda b: "live" not in b.find_element(By.ID, "live").get_attribute("class"))
        self.hub = Hub(self.data.name, port)
        self.wait.until(lambda b: "live" in b.find_element(By.ID, "live").get_attribute("class"))
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='list']").click()
        self.text_appears("#conversations", "How is the build?")

        # The account's computers, and signing this phone out: the pairing form comes back.
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='computer']").click()
        self.text_appears("#computers", "Desk (offline)")
        self.browser.find_element(By.ID, "forget-phone").click()
        self.wait.until(when.alert_is_present()).accept()
        self.wait.until(when.visibility_of_element_located((By.ID, "pair")))
        self.assertIsNone(self.browser.execute_script("return localStorage.getItem('zuv-phone-token')"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
