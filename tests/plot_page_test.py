"""The page and the picture of `dnnvad plot` in a browser: they draw and say what the detector says, and
the page obeys mouse and keys.

    plot_page_test.py DNNVAD RECORDING CHROMEDRIVER           tests
    plot_page_test.py --picture PAGE PNG CHROMEDRIVER         takes a picture of a page, 1400 x 900

docs/plot.png is such a picture with 96 colours:
    dnnvad plot samples/roadsigns-8k.wav -o page.html
    tests/plot_page_test.py --picture page.html page.png chromedriver
    ffmpeg -i page.png -vf 'split[a][b];[a]palettegen=96[p];[b][p]paletteuse=dither=none' docs/plot.png
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import xml.dom.minidom

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.wait import WebDriverWait

FRAMES = "requestAnimationFrame(() => requestAnimationFrame(arguments[0]))"


class Browser(webdriver.Chrome):
    """Headless Chromium with one page, which keeps a log of all that the page says and asks for."""

    def __init__(self, driver):
        options = webdriver.ChromeOptions()
        for option in ("headless", "no-sandbox", "hide-scrollbars"):
            options.add_argument("--" + option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        super().__init__(service=Service(driver), options=options)

    def open(self, url, width=1400, height=900, scale=1, dark=False):
        self.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": scale, "mobile": False})
        scheme = [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]
        self.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": scheme})
        self.get(url)
        WebDriverWait(self, 30).until(lambda _: self.value("window.drawn"))

    def value(self, expression):
        return self.execute_script("return " + expression)

    def mouse(self, kind, x, y, **more):
        self.execute_cdp_cmd("Input.dispatchMouseEvent", {"type": kind, "x": x, "y": y, **more})
        self.execute_async_script(FRAMES)


def text_of(browser, field):
    return browser.value(f"document.getElementById('{field}').textContent")


def look(browser, x, y=420):
    """What the page says of the moment at x."""
    browser.mouse("mouseMoved", x, y)
    return {field: text_of(browser, field) for field in ("time", "score", "state", "status")}


def moment(browser, x):
    return float(look(browser, x)["time"].split()[0])


def check(browser, program, recording, folder):
    page, picture = folder / "page.html", folder / "picture.svg"
    for output in (page, picture):
        subprocess.run([program, "plot", recording, "-o", output], check=True)
    image = xml.dom.minidom.parse(str(picture)).getElementsByTagName("image")[0].getAttribute("href")
    found = subprocess.run([program, "detect", "-f", "json", recording], check=True, capture_output=True)
    utterances = [u for u in map(json.loads, found.stdout.splitlines()) if u["type"] == "utterance"]
    rows = browser.execute_async_script("const i = new Image(); i.onerror = () => arguments[1](0); "
                                        "i.onload = () => arguments[1](i.naturalHeight); "
                                        "i.src = arguments[0];", image)
    assert rows > 30, "the picture's spectrogram"

    browser.open(page.as_uri())
    shades = browser.value("(() => { const c = document.getElementById('lanes'), d = c.getContext('2d')"
                           ".getImageData(0, 0, c.width, c.height); "
                           "return new Set(new Uint32Array(d.data.buffer)).size; })()")
    assert shades > 12000, shades  # 1000 without what the lanes hold, 10000 without the spectrum
    speaking = 0
    for x in range(150, 1270, 14):
        seen = look(browser, x)
        time, score = float(seen["time"].split()[0]), float(seen["score"])
        inside = any(u["first_speech"] <= time < u["last_speech"] + 0.01 for u in utterances)
        assert inside or seen["state"] == "SIL2SIL", seen
        assert (score > 0.2) == (seen["state"] in ("SPEECH2SPEECH", "SIL2SPEECH")), seen
        speaking += seen["status"] == "1 speech"
    assert speaking > 20, speaking

    left, middle, right = (moment(browser, x) for x in (150, 700, 1250))
    browser.mouse("mouseWheel", 700, 420, deltaX=0, deltaY=-240)
    assert abs(moment(browser, 700) - middle) < 0.02 and abs((right - left) / 2 - moment(browser, 1250) +
                                                             moment(browser, 150)) < 0.05, "wheel"
    before = moment(browser, 600)
    for kind, x in (("mousePressed", 600), ("mouseMoved", 700), ("mouseReleased", 700)):
        browser.mouse(kind, x, 420, button="left", buttons=1, clickCount=1)
    assert abs(moment(browser, 700) - before) < 0.02, "drag"
    browser.value("document.querySelector('tbody tr:nth-child(2)').click()")
    shown = moment(browser, 150), moment(browser, 1250)
    assert shown[0] < utterances[1]["start"] and utterances[1]["end"] < shown[1] < shown[0] + 6, shown
    for kind in ("keyDown", "keyUp"):
        browser.execute_cdp_cmd("Input.dispatchKeyEvent", {"type": kind, "key": "0"})
    assert abs(moment(browser, 150) - left) < 0.02, "the whole recording"
    browser.value("document.getElementById('theme').click()")
    assert browser.value("document.documentElement.className") == "dark"
    browser.open(page.as_uri(), width=700, scale=2, dark=True)
    ground = browser.value("getComputedStyle(document.body).backgroundColor")
    assert ground == "rgb(13, 18, 24)", ground
    assert browser.value("document.documentElement.scrollWidth <= innerWidth"), "wider than the window"

    said = browser.get_log("browser")
    sent = (json.loads(entry["message"])["message"] for entry in browser.get_log("performance"))
    asked = {e["params"]["request"]["url"].split(":")[0] for e in sent
             if e["method"] == "Network.requestWillBeSent"}
    assert not said and asked <= {"file", "data"}, (said, asked)


def main():
    with Browser(sys.argv[-1]) as browser, tempfile.TemporaryDirectory() as folder:
        if sys.argv[1] == "--picture":
            browser.open(pathlib.Path(sys.argv[2]).resolve().as_uri())
            browser.save_screenshot(sys.argv[3])
        else:
            check(browser, sys.argv[1], sys.argv[2], pathlib.Path(folder))


if __name__ == "__main__":
    main()
