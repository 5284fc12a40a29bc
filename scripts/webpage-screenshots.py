# SPDX-License-Identifier: GPL-3.0-or-later
"""Pictures of the notes web page for docs/images: signed in, with the download note open (the
address the tray menu's "Go To Download Note" opens), on a phone-sized and a desktop viewport;
and the installed app on a phone right after a link was shared to it ("Queued: ...").
Usage: /usr/bin/python3 scripts/webpage-screenshots.py PAGE_URL EMAIL PASSWORD OUTPUT_DIR"""
import shutil
import sys
from urllib.parse import quote

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as seen
from selenium.webdriver.support.ui import WebDriverWait

page, email, password, output = sys.argv[1:5]
shared = "https://cdn.example.org/releases/debian-12.8.0-amd64-netinst.iso"
options = webdriver.ChromeOptions()
options.binary_location = shutil.which("chromium")
for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars"):
    options.add_argument(argument)
browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
try:
    for name, width, height, view in (("web-page-phone", 390, 844, "note"),
                                      ("web-page-desktop", 1280, 800, "list"),
                                      ("web-page-share", 390, 844, "share")):
        # The viewport itself, as a phone of that size would have it; the shared one as the
        # installed app shows it, without the browser's address bar.
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "display-mode",
                          "value": "standalone" if view == "share" else "browser"}]})
        browser.execute_cdp_cmd("Network.clearBrowserCookies", {})
        browser.get(page + ("?q=Ferrybox_Downloads" if view == "note" else ""))
        wait = WebDriverWait(browser, 15)
        wait.until(seen.visibility_of_element_located((By.ID, "email"))).send_keys(email)
        browser.find_element(By.ID, "password").send_keys(password)
        browser.find_element(By.CSS_SELECTOR, "#sign-in button[type=submit]").click()
        if view == "note":
            wait.until(seen.visibility_of_element_located((By.ID, "text")))
            wait.until(lambda b: b.find_element(By.ID, "text").get_property("value"))
        else:
            wait.until(seen.visibility_of_element_located((By.CSS_SELECTOR, "#notes li")))
        if view == "share":
            # Signed in once on the phone; later a link shared from another app opens this.
            browser.get(f"{page}share?title=Debian&text=&url={quote(shared, safe='')}")
            wait.until(seen.visibility_of_element_located((By.ID, "queued")))
            wait.until(seen.visibility_of_element_located((By.CSS_SELECTOR, "#notes li")))
        browser.execute_script("document.activeElement.blur()")
        browser.save_screenshot(f"{output}/{name}.png")
finally:
    browser.quit()
