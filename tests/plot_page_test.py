"""The page and the picture of `dnnvad plot` in a browser: they draw and say what the detector says, and
the page obeys mouse and keys.

    plot_page_test.py DNNVAD RECORDING CHROMIUM               tests
    plot_page_test.py --picture PAGE PNG CHROMIUM             takes a picture of a page, 1400 x 900

docs/plot.png is such a picture with 96 colours:
    dnnvad plot samples/roadsigns-8k.wav -o page.html
    tests/plot_page_test.py --picture page.html page.png chromium
    ffmpeg -i page.png -vf 'split[a][b];[a]palettegen=96[p];[b][p]paletteuse=dither=none' docs/plot.png
"""
import base64
import fcntl
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import xml.dom.minidom

FRAMES = "new Promise(done => requestAnimationFrame(() => requestAnimationFrame(() => done())))"
DRAWN = ("new Promise((done, fail) => { setTimeout(() => fail(\"not drawn\"), 30000); "
         "const look = () => window.drawn ? done() : setTimeout(look, 5); look(); })")


class Browser:
    """Headless Chromium with one page, spoken to through its debugging pipe."""

    OPTIONS = ("--headless --no-sandbox --disable-gpu --no-first-run --disable-background-networking "
               "--disable-component-update --disable-sync --disable-quic --remote-debugging-pipe "
               "--hide-scrollbars about:blank").split()

    def __init__(self, chromium, folder):
        # The browser reads commands from descriptor 3 and writes answers to 4.
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD, 10) for pair in (os.pipe(), os.pipe()) for end in pair]
        self.process = subprocess.Popen(
            [chromium, f"--user-data-dir={folder}", *self.OPTIONS], pass_fds=(3, 4),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            preexec_fn=lambda: (os.dup2(ends[0], 3), os.dup2(ends[3], 4)))
        os.close(ends[0])
        os.close(ends[3])
        self.commands, self.answers = ends[1], ends[2]
        self.rest, self.count, self.session, self.events = b"", 0, None, []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(domain + ".enable")

    def message(self):
        while b"\0" not in self.rest:
            piece = os.read(self.answers, 1 << 20)
            if not piece:
                raise EOFError("the browser has gone")
            self.rest += piece
        text, self.rest = self.rest.split(b"\0", 1)
        return json.loads(text)

    def call(self, method, **parameters):
        self.count += 1
        command = {"id": self.count, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        os.write(self.commands, json.dumps(command).encode() + b"\0")
        while (answer := self.message()).get("id") != self.count:
            self.events.append(answer)
        return answer["result"]

    def value(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, awaitPromise=True,
                           returnByValue=True)
        assert "exceptionDetails" not in result, result
        return result["result"].get("value")

    def open(self, url, width=1400, height=900, scale=1, dark=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=scale, mobile=False)
        scheme = [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]
        self.call("Emulation.setEmulatedMedia", features=scheme)
        self.call("Page.navigate", url=url)
        self.value(DRAWN)

    def mouse(self, kind, x, y, **more):
        self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, **more)
        self.value(FRAMES)

    def picture(self):
        return base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"])

    def close(self):
        self.process.kill()
        self.process.wait()


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
    rows = browser.value(f"new Promise((done, fail) => {{ const i = new Image(); i.onerror = fail; "
                         f"i.onload = () => done(i.naturalHeight); i.src = '{image}'; }})")
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
        browser.call("Input.dispatchKeyEvent", type=kind, key="0")
    assert abs(moment(browser, 150) - left) < 0.02, "the whole recording"
    browser.value("document.getElementById('theme').click()")
    assert browser.value("document.documentElement.className") == "dark"
    browser.open(page.as_uri(), width=700, scale=2)
    assert browser.value("document.documentElement.scrollWidth <= innerWidth"), "wider than the window"

    bad = [e for e in browser.events if e["method"] in ("Runtime.exceptionThrown", "Log.entryAdded")]
    asked = {e["params"]["request"]["url"].split(":")[0] for e in browser.events
             if e["method"] == "Network.requestWillBeSent"}
    assert not bad and asked <= {"file", "data"}, (bad, asked)


def main():
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        browser = Browser(sys.argv[-1], folder)
        try:
            if sys.argv[1] == "--picture":
                browser.open(pathlib.Path(sys.argv[2]).resolve().as_uri())
                pathlib.Path(sys.argv[3]).write_bytes(browser.picture())
            else:
                check(browser, sys.argv[1], sys.argv[2], pathlib.Path(folder))
        finally:
            browser.close()


if __name__ == "__main__":
    main()
