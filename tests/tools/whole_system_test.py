#!/usr/bin/python3
"""The whole system on this machine: zuv-hub, the real Zuv (with its agent and
screen helper) on the X display, and the phone page in headless chromium. The
page pairs; a message sent from the desktop's composer is answered by the
computer's Claude Code (a fake one on its PATH) and read on the page; a tool
request is approved from the desktop's notification and resolved on the page; a
clip copied on the desktop is listed on the page; a session started on the page
asks before its tool and runs once allowed; a text sent from the page lands on
the desktop's clipboard with a notification; the page shows the desktop's screen."""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

import dbus
from selenium.common.exceptions import StaleElementReferenceException
from browser import chromium
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support import expected_conditions as when
from selenium.webdriver.support.ui import WebDriverWait

ZUV, HUB, FAKES = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)


def wait_for(condition, seconds=30, what="the condition"):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.1)
    raise AssertionError(f"timed out waiting for {what}")


class WholeSystem(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="zuv-e2e-")
        self.processes = []
        # A session bus of our own with a notification daemon that records and acts.
        conf = os.path.join(self.home, "bus.conf")
        with open(conf, "w") as f:
            f.write('<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" '
                    '"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd"><busconfig><type>session</type>'
                    '<listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth><policy context="default">'
                    '<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy></busconfig>')
        bus = self.start(["dbus-daemon", f"--config-file={conf}", "--nofork", "--print-address=1"], stdout=subprocess.PIPE)
        self.address = bus.stdout.readline().decode().strip()
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.address)
        self.start(["/usr/bin/python3", "-m", "dbusmock", "--template", "notification_daemon"], env=env)
        self.bus = dbus.bus.BusConnection(self.address)
        wait_for(lambda: self.bus.name_has_owner("org.freedesktop.Notifications"), what="the notification daemon")
        self.notifications = self.bus.get_object("org.freedesktop.Notifications", "/org/freedesktop/Notifications")

        # The hub.
        hub = self.start([HUB, "--listen", "127.0.0.1:0", "--data", os.path.join(self.home, "hub"), "--turn-delay", "0.1"],
                         stdout=subprocess.PIPE)
        self.hub = re.search(r"http://127\.0\.0\.1:\d+", hub.stdout.readline().decode()).group(0)

        # Zuv in a profile of its own, against the hub, keeping the clipboard.
        for folder in ("config/Zuv", "data", "state", "run"):
            os.makedirs(os.path.join(self.home, folder), exist_ok=True)
        os.chmod(os.path.join(self.home, "run"), 0o700)
        with open(os.path.join(self.home, "config/Zuv/defaults.json"), "w") as f:
            json.dump({"server": self.hub, "clip-enabled": True}, f)
        # The fake Claude Code where the agent's PATH looks first, and a project for it.
        os.makedirs(os.path.join(self.home, ".local/bin"))
        shutil.copy(os.path.join(FAKES, "claude"), os.path.join(self.home, ".local/bin/claude"))
        self.project = os.path.join(self.home, "proj")
        os.makedirs(self.project)
        subprocess.run(["git", "init", "-q", self.project], check=True)
        self.app_env = dict(os.environ, HOME=self.home, DBUS_SESSION_BUS_ADDRESS=self.address, QT_QPA_PLATFORM="xcb",
                            XDG_CONFIG_HOME=os.path.join(self.home, "config"), XDG_DATA_HOME=os.path.join(self.home, "data"),
                            XDG_STATE_HOME=os.path.join(self.home, "state"), XDG_RUNTIME_DIR=os.path.join(self.home, "run"),
                            ZUV_PROFILE_SECRETS="file", ASAN_OPTIONS="detect_leaks=0")
        self.app = self.start([ZUV, "--pair"], env=self.app_env)

        self.browser = chromium()
        self.wait = WebDriverWait(self.browser, 30)

    def start(self, command, **kwargs):
        process = subprocess.Popen(command, **kwargs)
        self.processes.append(process)
        return process

    def tearDown(self):
        self.browser.quit()
        for process in reversed(self.processes):
            if process.stdout:
                process.stdout.close()
            process.terminate()
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
        shutil.rmtree(self.home, ignore_errors=True)

    def app_log(self):
        try:
            with open(os.path.join(self.home, "state/Zuv/logs/app.log")) as f:
                return f.read()
        except OSError:
            return ""

    def notify_calls(self):
        return [call for call in self.notifications.GetCalls(dbus_interface="org.freedesktop.DBus.Mock")
                if call[1] == "Notify"]

    def text_appears(self, selector, text):
        self.wait.until(when.text_to_be_present_in_element((By.CSS_SELECTOR, selector), text))

    def test_the_page_and_the_desktop_work_together(self):
        # Pairing: the code Zuv shows, typed on the page.
        code = wait_for(lambda: (re.findall(r"pairing code (\w+)", self.app_log()) or [None])[-1], what="a pairing code")
        self.browser.get(f"{self.hub}/")
        self.browser.find_element(By.ID, "code").send_keys(code)
        self.browser.find_element(By.CSS_SELECTOR, "#pair-form button").click()
        self.wait.until(when.visibility_of_element_located((By.ID, "app")))
        wait_for(lambda: "agent connected to the hub" in self.app_log(), what="the agent on the hub")

        # A message from the desktop's composer (a second launch with the test flags),
        # answered by the stand-in, read on the page.
        subprocess.run([ZUV, "--open-chat", "cdesk", "--send-test", "Hello from the desktop"], env=self.app_env,
                       timeout=30, check=True)
        self.text_appears("#conversations", "Hello from the desktop")
        # The list is drawn again as frames come: click what stands there now.
        def opened():
            try:
                self.browser.find_element(By.CSS_SELECTOR, "#conversations li[data-id='cdesk']").click()
                return True
            except StaleElementReferenceException:
                return False
        wait_for(opened, what="the conversation in the list")
        self.text_appears("#messages li.user", "Hello from the desktop")
        self.text_appears("#messages li.assistant", "Done: Hello from the desktop")

        # A tool request, approved with the desktop notification's Allow, resolved on the page.
        box = self.browser.find_element(By.ID, "text")
        box.send_keys("/tool Bash: df -h", Keys.ENTER)
        self.wait.until(when.visibility_of_element_located((By.CSS_SELECTOR, ".request")))
        calls = wait_for(lambda: [c for c in self.notify_calls() if "ALLOW" in [str(a) for a in c[2][5]]],
                         what="the tool request's notification")
        number = self.notify_calls().index(calls[0]) + 1  # the daemon numbers notifications from 1
        self.notifications.EmitSignal("org.freedesktop.Notifications", "ActionInvoked", "us",
                                      [dbus.UInt32(number), "ALLOW"], dbus_interface="org.freedesktop.DBus.Mock")
        self.text_appears("#messages", "Allowed.")
        self.wait.until(lambda b: not b.find_elements(By.CSS_SELECTOR, ".request"))

        # A clip copied on the desktop, listed on the page through the agent.
        # In the foreground (-quiet), owned by this test and ended with it.
        owner = self.start(["xclip", "-quiet", "-selection", "clipboard"], stdin=subprocess.PIPE,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        owner.stdin.write(b"copied on the desktop")
        owner.stdin.close()
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='clipboard']").click()

        def listed():
            self.browser.find_element(By.ID, "clip-search").send_keys(Keys.SPACE, Keys.BACKSPACE)
            time.sleep(0.6)
            return "copied on the desktop" in self.browser.find_element(By.ID, "clips").text
        wait_for(listed, what="the clip on the page")

        # A session in a folder of the computer, started on the page: its tool
        # request waits for Allow, then the tool runs in that folder.
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='sessions']").click()
        self.browser.find_element(By.ID, "session-cwd").send_keys(self.project)
        self.browser.find_element(By.ID, "session-prompt").send_keys("run: make test")
        self.browser.find_element(By.CSS_SELECTOR, "#session-new button").click()
        allow = self.wait.until(when.element_to_be_clickable((By.XPATH, "//div[@class='request']//button[text()='Allow']")))
        self.assertIn("make test", self.browser.find_element(By.CSS_SELECTOR, ".request code").text)
        allow.click()
        self.text_appears("#items li.tool", "Bash: make test")
        self.text_appears("#session-meta", "Waiting for you")
        self.text_appears("#items li.assistant", "Ran make test")
        if os.environ.get("ZUV_SESSION_SCREENSHOT"):  # the README's picture
            self.browser.save_screenshot(os.environ["ZUV_SESSION_SCREENSHOT"])

        # A text sent from the page lands on the desktop's clipboard, and the desktop says so.
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='clipboard']").click()
        self.browser.find_element(By.ID, "clip-text").send_keys("sent from the phone")
        self.browser.find_element(By.ID, "clip-send").click()
        self.text_appears("#clip-sent", "Text sent to")
        wait_for(lambda: subprocess.run(["xclip", "-o", "-selection", "clipboard"], capture_output=True,
                                        timeout=10).stdout == b"sent from the phone", what="the text on the clipboard")
        wait_for(lambda: any("Clipboard from Phone" in str(c[2][3]) for c in self.notify_calls()),
                 what="the desktop's notification")

        # The desktop's screen, seen on the page through the agent and the screen helper.
        self.browser.find_element(By.CSS_SELECTOR, "nav#tabs [data-tab='computer']").click()
        self.browser.find_element(By.ID, "see-screen").click()
        self.wait.until(lambda b: b.find_element(By.ID, "screen-picture").get_attribute("naturalWidth") not in (None, "0"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
