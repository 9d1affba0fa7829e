"""Debian's chromium, headless, driven by selenium: what the browser tests share."""
from selenium import webdriver
from selenium.webdriver.chrome.service import Service


def chromium():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    # A phone-sized window; no sandbox, since the tests may run as root in a container.
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=420,900"):
        options.add_argument(flag)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
