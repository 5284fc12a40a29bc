# SPDX-License-Identifier: GPL-3.0-or-later
"""Pictures of the notes web page for docs/images: signed in, with the download note open (the
address the tray menu's "Go To Download Note" opens), on a phone-sized and a desktop viewport.
Usage: /usr/bin/python3 scripts/webpage-screenshots.py PAGE_URL EMAIL PASSWORD OUTPUT_DIR"""
import shutil
import sys

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as seen
from selenium.webdriver.support.ui import WebDriverWait

page, email, password, output = sys.argv[1:5]
options = webdriver.ChromeOptions()
options.binary_location = shutil.which("chromium")
for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars"):
    options.add_argument(argument)
browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
try:
    for name, width, height, view in (("web-page-phone", 390, 844, "note"),
                                      ("web-page-desktop", 1280, 800, "list")):
        # The viewport itself, as a phone of that size would have it.
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})
        browser.get(page)
        browser.execute_script("sessionStorage.clear()")
        browser.get(page + "?q=Ferrybox_Downloads")
        wait = WebDriverWait(browser, 15)
        wait.until(seen.visibility_of_element_located((By.ID, "email"))).send_keys(email)
        browser.find_element(By.ID, "password").send_keys(password)
        browser.find_element(By.CSS_SELECTOR, "#sign-in button[type=submit]").click()
        wait.until(seen.visibility_of_element_located((By.ID, "text")))
        wait.until(lambda b: b.find_element(By.ID, "text").get_property("value"))
        if view == "list":
            browser.find_element(By.ID, "back").click()
            wait.until(seen.visibility_of_element_located((By.CSS_SELECTOR, "#notes li")))
        browser.execute_script("document.activeElement.blur()")
        browser.save_screenshot(f"{output}/{name}.png")
finally:
    browser.quit()
