#!/usr/bin/python3
"""Writes a picture of shmnmweb's page: screenshot.py ADDRESS FILE [WIDTHxHEIGHT]"""
import sys
import time

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

DEADLINE = 60


def main():
    address, file = sys.argv[1:3]
    width, height = (sys.argv[3] if len(sys.argv) > 3 else "1440x1060").split("x")
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", f"--window-size={width},{height}"):
        options.add_argument(argument)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        browser.get(address)
        end = time.monotonic() + DEADLINE
        # The picture is there when the stream is, and its marks of the newest changes fade.
        while browser.execute_script("return document.getElementById('live').textContent") != "Live" or browser.execute_script("return document.querySelector('td.new') !== null"):
            if time.monotonic() > end:
                sys.exit(f"screenshot.py: {address} did not show a live picture within {DEADLINE} s")
            time.sleep(0.1)
        time.sleep(0.5)
        if not browser.save_screenshot(file):
            sys.exit(f"screenshot.py: cannot write {file}")
    finally:
        browser.quit()


if __name__ == "__main__":
    main()
