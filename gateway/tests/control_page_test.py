#!/usr/bin/env python3
"""The page of qpxgatewayd's control port in a headless Chromium, driven through chromedriver.

Usage: control_page_test.py DAEMON ECHO              tests the page
       control_page_test.py DAEMON ECHO --pictures FOLDER
                                                     makes the pictures of docs/gateway.md

ECHO is a program that calls ECHO through the library, given a host and a port. Whatever is waited
for is a condition; the limits only end what would never come.
"""

import argparse
import base64
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

MOST_STARTS = 20
LIMIT = 180  # seconds, for anything
INSTALL = "install it with: tools/install-packages browser"

SCRIPT = """[[on]]
program = "PRICE"
commarea = "100106"
answer = "100106 Bag of flour               1.20"

[[on]]
program = "PRICE"
answer = { abend = "NOAR" }

[[on]]
program = ["QUOTE", "OFFER*"]
answer = { code = -16, delay = "30ms" }
"""
REGISTRY = """[[system]]
name = "VORNA"
description = "Accounts, head office"
[[system]]
name = "VORNTEST"
description = "Tests, at office hours"
state = "unavailable"
[[user]]
id = "ANNA"
password = "Green8sea"
[[user]]
id = "FRED"
password = "Blue7sky"
[[user]]
id = "RALF"
password = "Grey6fog"
revoked = true
"""


class Failed(Exception):
    pass


def check(is_so, text):
    if not is_so:
        raise Failed(text)


class Process:
    """A program whose output is read, line by line, on a thread of its own."""

    def __init__(self, command):
        self.lines = []
        self.changed = threading.Condition()
        self.ended = False
        self.process = subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line)
                self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def await_line(self, pattern):
        def found():
            for line in self.lines:
                match = re.search(pattern, line)
                if match:
                    return match
            return None
        with self.changed:
            self.changed.wait_for(lambda: found() or self.ended, LIMIT)
            match = found()
        check(match, f"no line with {pattern}: {''.join(self.lines)}")
        return match

    def end(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(LIMIT)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.thread.join(LIMIT)
        self.process.stdout.close()
        return self.process.returncode


def start_driver(folder):
    """chromedriver and its port: a free one of ::1 that is to be free at 127.0.0.1, too. When
    somebody else has it there, chromedriver ends, and another one looks for another port."""
    for _ in range(MOST_STARTS):
        # What it keeps besides, of its crashes say, goes there too: a home need not be writable.
        driver = Process(["env", "-u", "XDG_CONFIG_HOME", "-u", "XDG_CACHE_HOME",
                          f"HOME={folder}", "chromedriver", "--port=0"])
        port = driver.await_line(r"started successfully on port (\d+)|port not available").group(1)
        if port:
            return driver, port
        driver.end()
    raise Failed("chromedriver has found no port that is free")


class Browser:
    """What of WebDriver is needed here."""

    def __init__(self, folder):
        for program in ("chromium", "chromedriver"):
            if shutil.which(program) is None:
                raise Failed(f"{program} is not there, and the page is tested in it; {INSTALL}")
        os.mkdir(folder)
        self.driver, port = start_driver(folder)
        self.base = f"http://127.0.0.1:{port}"
        options = {
            "binary": shutil.which("chromium"),
            "args": ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--no-first-run", "--disable-background-networking", "--disable-extensions",
                     "--disable-component-update", "--disable-sync", "--hide-scrollbars",
                     "--window-size=1280,800", f"--user-data-dir={folder}"],
        }
        answer = self._send("POST", "/session", {"capabilities": {"alwaysMatch": {
            "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"},
            "timeouts": {"script": 1000 * LIMIT, "pageLoad": 1000 * LIMIT}}}})
        self.session = "/session/" + answer["sessionId"]

    def _send(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"},
                                         method=method)
        try:
            with urllib.request.urlopen(request, timeout=2 * LIMIT) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise Failed(f"{method} {path}: {error.read().decode(errors='replace')[:600]}") from error

    def wait_for(self, condition, what):
        """The first true result of the condition, which is asked for once in a frame."""
        end = time.monotonic() + LIMIT
        last = None
        while time.monotonic() < end:
            last = condition()
            if last:
                return last
            self._send("POST", self.session + "/execute/async",
                       {"script": "requestAnimationFrame(() => arguments[0]());", "args": []})
        raise Failed(f"{what}: it has not come; the last was {last!r}")

    def go(self, url):
        self._send("POST", self.session + "/url", {"url": url})

    def run(self, script, *arguments):
        return self._send("POST", self.session + "/execute/sync",
                          {"script": script, "args": list(arguments)})

    def key(self, *keys):
        actions = []
        for key in keys:
            actions += [{"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]
        self._send("POST", self.session + "/actions",
                   {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def find(self, selector):
        def found():
            elements = self._send("POST", self.session + "/elements",
                                  {"using": "css selector", "value": selector})
            return elements[0] if elements else None
        return next(iter(self.wait_for(found, selector).values()))

    def click(self, selector):
        """As a user does it. What is drawn anew meanwhile is looked for again."""
        def clicked():
            try:
                self._send("POST", f"{self.session}/element/{self.find(selector)}/click", {})
                return True
            except Failed as problem:
                if "stale" in str(problem) or "intercepted" in str(problem):
                    return False
                raise
        self.wait_for(clicked, f"a click on {selector}")

    def write(self, selector, text):
        self._send("POST", f"{self.session}/element/{self.find(selector)}/value", {"text": text})

    def text(self, selector):
        return self.run("const one = document.querySelector(arguments[0]);"
                        "return one === null ? '' : one.textContent;", selector)

    def resize(self, width, height):
        self.command("Emulation.setDeviceMetricsOverride",
                     {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def scheme(self, name):
        self.command("Emulation.setEmulatedMedia",
                     {"features": [{"name": "prefers-color-scheme", "value": name}]})

    def command(self, name, parameters):
        return self._send("POST", self.session + "/goog/cdp/execute",
                          {"cmd": name, "params": parameters})

    def picture(self, file):
        data = self.command("Page.captureScreenshot", {"format": "png"})["data"]
        with open(file, "wb") as out:
            out.write(base64.b64decode(data))

    def complaints(self):
        entries = self._send("POST", self.session + "/se/log", {"type": "browser"})
        return [entry["message"] for entry in entries if entry["level"] in ("SEVERE", "WARNING")]

    def end(self):
        try:
            self._send("DELETE", self.session)
        except (AttributeError, Failed, OSError):
            pass
        self.driver.end()


class RawClient:
    """A client of the gateway that sends what no application would."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), LIMIT)
        self.message = 0
        fixed = bytes.fromhex("00 02 65 6E 00 02 47 42") + bytes(10)
        self.socket.sendall(self.flow(5, -2, b"BASE", fixed + b"\x00\x05DEMO1\x00\x00"))
        self.read()

    @staticmethod
    def flow(kind, message, request_type, body):
        return (struct.pack(">IIiiii", 0x47617465, 0x10A01000, kind, message, 0, len(request_type))
                + request_type + b"\x00" + struct.pack(">i", len(body)) + body)

    def call(self, program, commarea=b"", user=b"", mode=0, unit=0, channel=b""):
        self.message += 1
        body = (struct.pack(">iiii", 1, mode, unit, 0) + b"\x00" + struct.pack(">i", 8)
                + b"SERVER1 " + user.ljust(16, b"\x00") + struct.pack(">i", 0)
                + program.ljust(8) + b"TRN1" + struct.pack(">ii", 0, len(commarea)) + b"\x00\x00"
                + commarea + (b"\xff" + channel if channel else b"\x00")
                + struct.pack(">hBii", 0, 0, -1, 1))
        self.socket.sendall(self.flow(1, self.message, b"ECI", body))

    def read(self):
        head = self.take(24)
        kind = self.take(struct.unpack(">i", head[20:])[0] + 5)
        return head + kind + self.take(struct.unpack(">i", kind[-4:])[0])

    def take(self, count):
        data = b""
        while len(data) < count:
            more = self.socket.recv(count - len(data))
            check(more, "the gateway has closed the connection")
            data += more
        return data

    def ask(self, *arguments, **named):
        self.call(*arguments, **named)
        return self.read()

    def close(self):
        self.socket.close()


def channel(name, containers):
    data = name.ljust(16, b"\x00") + struct.pack(">ii", 819, len(containers))
    for container, kind, content in containers:
        data += (container.ljust(16, b"\x00") + b"\x01\x00\x00" + bytes([kind])
                 + struct.pack(">ii", 819 if kind == 2 else 0, len(content)) + content)
    return data


class Test:
    def __init__(self, daemon, echo, folder):
        self.echo = echo
        self.folder = folder
        self.processes = []
        script = os.path.join(folder, "answers.toml")
        registry = os.path.join(folder, "registry.toml")
        for file, text in ((script, SCRIPT), (registry, REGISTRY)):
            with open(file, "w", encoding="utf-8") as out:
                out.write(text)
        self.daemon = Process([daemon, "--control", "0", "--script", script, "--registry", registry,
                               "--database", os.path.join(folder, "ledger.db")])
        self.processes.append(self.daemon)
        self.port = int(self.daemon.await_line(r"listening on 127\.0\.0\.1:(\d+)").group(1))
        self.page = self.daemon.await_line(r"control on (http://\S+)").group(1)
        self.daemon.await_line("ready")
        try:
            self.browser = Browser(os.path.join(folder, "browser"))
        except Failed:
            self.daemon.end()
            raise
        self.processes.append(self.browser)

    def end(self):
        for process in reversed(self.processes):
            process.end()

    def call_by_library(self):
        return subprocess.run([self.echo, "127.0.0.1", str(self.port)], capture_output=True,
                              text=True, timeout=LIMIT, check=False)

    def open(self):
        self.browser.go(self.page)
        self.browser.wait_for(lambda: self.browser.run("return document.querySelector('.dot.live') !== null"),
                 "the page is connected")

    def rows(self):
        return self.browser.run(
            "return [...document.querySelectorAll('#rows .row')].map((row) => row.innerText)")

    def tab(self, name):
        self.browser.run("document.activeElement.blur()")
        self.browser.click("#tab-" + name)
        self.browser.wait_for(lambda: self.browser.run(
            "return document.getElementById('panel').childNodes.length > 0"), f"the panel {name}")

    # ------------------------------------------------------------------------------------ the cases

    def a_call_made_by_the_library_appears(self):
        self.open()
        check(self.rows() == [], "there are calls already")
        done = self.call_by_library()
        check(done.returncode == 0, f"the call has failed: {done.stderr}")
        row = self.browser.wait_for(self.rows, "a row for the call")[0]
        check("ECHO" in row, f"the row is not that of the call: {row}")
        self.browser.wait_for(lambda: self.browser.text("#rows .chip") == "0", "its answer")

    def a_call_opens_to_its_fields_and_bytes(self):
        self.browser.click("#rows .row")
        text = self.browser.wait_for(lambda: self.browser.text("#detail .dump") and self.browser.text("#detail"),
                        "the call")
        for part in ("Call 1", "Program", "ECHO", "Hello, Gateway!", "eyecatcher", "\"Gate\"",
                     "message id", "COMMAREA", "47 61 74 65", "bytes on the wire"):
            check(part in text, f"the call does not show {part}: {text[:2000]}")
        self.browser.key("\ue00c")  # Escape
        self.browser.wait_for(lambda: self.browser.run("return document.getElementById('detail').hidden"),
                 "the call is closed by a key")

    def a_channel_opens_as_a_table(self):
        client = RawClient(self.port)
        client.ask(b"CHANECHO", channel=channel(b"ORDER", [(b"NAME", 2, b"Ann"), (b"DATA", 1, b"\x01\xff")]))
        client.close()
        self.browser.wait_for(lambda: any("CHANECHO" in row for row in self.rows()), "the call with a channel")
        self.browser.click("#rows .row")
        text = self.browser.wait_for(lambda: self.browser.text("#detail table"), "the channel")
        for part in ("NAME", "Ann", "DATA", "01 ff"):
            check(part in text, f"the channel does not show {part}: {text}")
        self.browser.key("\ue00c")

    def a_fault_switched_on_there_hits_the_next_call(self):
        self.tab("faults")
        self.browser.write("#argument-flow-error", "61445")
        self.browser.click("#fault-flow-error")
        self.browser.wait_for(lambda: self.browser.run("return document.getElementById('fault-flow-error')"
                                          ".getAttribute('aria-checked') === 'true'"),
                 "the switch is on")
        done = self.call_by_library()
        check(done.returncode == 1 and done.stdout == "", f"the fault has not struck: {done}")
        self.browser.click("#fault-flow-error")
        self.browser.wait_for(lambda: self.browser.run("return document.getElementById('fault-flow-error')"
                                          ".getAttribute('aria-checked') === 'false'"),
                 "the switch is off")
        done = self.call_by_library()
        check(done.returncode == 0, f"the fault has not gone: {done}")
        self.tab("calls")
        self.browser.wait_for(lambda: any("error 61445" in row and "flow-error" in row for row in self.rows()),
                 "the fault at its call")

    def answers_are_held_and_released_there(self):
        self.browser.click("#hold")
        self.browser.wait_for(lambda: "fault1" in self.browser.text("#numbers"), "the hold is on")
        client = RawClient(self.port)
        client.call(b"ECHO", b"held")
        self.browser.wait_for(lambda: any("under way" in row for row in self.rows()), "a call that is under way")
        self.browser.wait_for(lambda: self.browser.run("return !document.getElementById('release').disabled"),
                 "the button")
        self.browser.click("#release")
        check(b"held" in client.read(), "the answer is another one")
        client.close()
        self.browser.wait_for(lambda: not any("under way" in row for row in self.rows()), "the call's answer")

    def what_comes_from_clients_is_text(self):
        client = RawClient(self.port)
        client.ask(b"<b>X</b>", b"<img src=x onerror='window.hit=1'><script>window.hit=1</script>",
                   user=b"<i>U</i>")
        client.close()
        self.browser.wait_for(lambda: any("<b>X</b>" in row and "<i>U</i>" in row for row in self.rows()),
                 "the call as text")
        self.browser.click("#rows .row")
        self.browser.wait_for(lambda: "onerror" in self.browser.text("#detail pre"), "its data as text")
        made = self.browser.run("return [document.querySelectorAll('#main img, #main script, "
                                "#main .row b, #main .row i').length, window.hit === undefined]")
        check(made == [0, True], f"data became elements: {made}")
        self.browser.key("\ue00c")

    def every_panel_shows_what_there_is(self):
        client = RawClient(self.port)
        client.ask(b"PRICE", b"100106".ljust(40))
        client.ask(b"LEDGER", b"D  ACC00001000000010000".ljust(80), mode=1)
        wanted = {
            "connections": ["DEMO1", "open", "closed by the client"], "units": ["LEDGER"],
            "faults": ["pieces", "drop"], "script": ["program PRICE, commarea", "program QUOTE or OFFER*"],
            "ledger": ["Harbour Light Bakery", "121,010.60"],
            "prices": ["Wheat flour", "18.90"], "users": ["FRED", "RALF", "revoked", "VORNTEST", "unavailable"],
            "recordings": ["Nothing is recorded."],
        }
        for name, parts in wanted.items():
            self.tab(name)
            for part in parts:
                self.browser.wait_for(lambda part=part: part in self.browser.text("#panel"), f"{part} in {name}")
        for password in ("Green8sea", "Blue7sky", "Grey6fog"):
            check(password not in self.browser.run("return document.documentElement.innerHTML"),
                  "a password is shown")
        self.tab("script")
        self.browser.wait_for(lambda: "program PRICE, commarea1" in self.browser.text("#panel tbody"), "its match")
        client.close()

    def thousands_of_calls_have_few_rows(self):
        self.tab("calls")
        client = RawClient(self.port)
        for _ in range(100):
            for _ in range(50):
                client.call(b"ECHO", b"x")
            for _ in range(50):
                client.read()
        client.close()
        self.browser.wait_for(lambda: int(re.sub(r"\D", "", self.browser.text(".count")) or 0) >= 5000,
                 "five thousand calls")
        check(len(self.rows()) < 150, f"{len(self.rows())} rows are there")
        self.browser.run("document.getElementById('rows').focus()")
        self.browser.key("\ue010")  # End
        self.browser.wait_for(lambda: self.browser.run(
            "return document.querySelector('#rows .chosen .num')?.textContent === '1'"),
            "the oldest call by a key")
        check(len(self.rows()) < 150, f"{len(self.rows())} rows are there")
        self.browser.key("\ue011")  # Home
        self.browser.key("/")
        self.browser.write(".bar input", "chanecho")
        self.browser.wait_for(lambda: self.browser.text(".count").startswith("1 of"), "the filter")
        self.browser.run("document.querySelector('.bar input').value = '';"
                         "document.querySelector('.bar input').dispatchEvent(new Event('input'))")

    def fits_a_window_of_400_pixels_in_light_and_dark(self):
        self.browser.resize(400, 800)
        self.browser.wait_for(lambda: self.browser.run("return window.innerWidth === 400"), "the size")
        colours = set()
        for scheme in ("light", "dark"):
            self.browser.scheme(scheme)
            for name in ("calls", "connections", "units", "faults", "script", "ledger", "prices",
                         "users", "recordings"):
                self.tab(name)
                width = self.browser.run("return document.documentElement.scrollWidth")
                check(width <= 400, f"{name} is {width} pixels wide")
            colours.add(self.browser.run("return getComputedStyle(document.body).backgroundColor"))
            contrast = self.browser.run("""
                const light = (text) => text.match(/[\\d.]+/g).slice(0, 3).map((part) => part / 255)
                  .map((part) => (part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4))
                  .reduce((sum, part, index) => sum + part * [0.2126, 0.7152, 0.0722][index], 0);
                const style = getComputedStyle(document.documentElement);
                const probe = document.createElement("i");
                document.body.append(probe);
                const of = (name) => { probe.style.color = `var(--${name})`; return light(getComputedStyle(probe).color); };
                const pairs = [["ink", "paper"], ["soft", "panel"], ["faint", "panel"], ["good", "good-soft"],
                  ["bad", "bad-soft"], ["warn", "warn-soft"], ["accent", "panel"], ["faint", "accent-soft"]];
                const worst = Math.min(...pairs.map(([one, other]) => {
                  const [high, low] = [of(one), of(other)].sort((a, b) => b - a);
                  return (high + 0.05) / (low + 0.05);
                }));
                probe.remove();
                return worst;""")
            check(contrast >= 4.0, f"in {scheme} a contrast is {contrast}")
        check(len(colours) == 2, f"light and dark look alike: {colours}")
        self.tab("calls")
        self.browser.click("#rows .row")
        self.browser.wait_for(lambda: self.browser.text("#detail .dump"), "a call in a narrow window")
        width = self.browser.run("return document.documentElement.scrollWidth")
        check(width <= 400, f"a call is {width} pixels wide")
        self.browser.resize(1280, 800)
        self.browser.scheme("light")

    def nothing_is_complained_about(self):
        complaints = [text for text in self.browser.complaints() if "404" not in text]
        check(complaints == [], f"the browser complains: {complaints}")

    def ends_in_order(self):
        check(self.daemon.end() == 0, f"the daemon: {''.join(self.daemon.lines[-20:])}")
        self.browser.wait_for(lambda: self.browser.run("return document.querySelector('.dot.lost') !== null"),
                 "the page says that the gateway has gone")

    def cases(self):
        return [self.a_call_made_by_the_library_appears, self.a_call_opens_to_its_fields_and_bytes,
                self.a_channel_opens_as_a_table, self.a_fault_switched_on_there_hits_the_next_call,
                self.answers_are_held_and_released_there, self.what_comes_from_clients_is_text,
                self.every_panel_shows_what_there_is, self.thousands_of_calls_have_few_rows,
                self.fits_a_window_of_400_pixels_in_light_and_dark,
                self.nothing_is_complained_about, self.ends_in_order]


def make_pictures(test, folder):
    browser = test.browser
    clients = [RawClient(test.port) for _ in range(3)]
    users = (b"ANNA", b"FRED", b"OLGA")
    token = struct.unpack(">i", clients[0].ask(
        b"LEDGER", b"D  ACC00001000000012500".ljust(80), user=b"ANNA", mode=1)[36:40])[0]
    clients[0].ask(b"LEDGER", b"C  ACC00004000000012500".ljust(80), user=b"ANNA", mode=1, unit=token)
    clients[0].ask(b"", user=b"ANNA", mode=2, unit=token)
    for i in range(9):
        client, user = clients[i % 3], users[i % 3]
        client.ask(b"ECHO", b"Hello, Gateway!", user=user)
        client.ask(b"PRICE", (b"100106" if i % 4 else b"999999").ljust(40), user=user)
        client.ask(b"LEDGER", b"Q  ACC0000%d" % (i % 9 + 1) + b"000000000000".ljust(69), user=user)
        if i % 3 == 0:
            client.ask(b"QUOTE", b"17", user=user)
    clients[1].ask(b"LEDGER", b"D  ACC00002000000004500".ljust(80), user=b"FRED", mode=1)
    clients[2].ask(b"ORDERS", user=b"OLGA", channel=channel(b"ORDER", [
        (b"ORDER.HEADER", 2, b"order=2026-0317\naccount=ACC00004\ndate=2026-03-02\ncurrency=EUR\n"),
        (b"ORDER.LINES", 1, bytes.fromhex("000493e000000002 0000 0000 000186a9 00000003 01f4 0000"))]))
    test.open()
    browser.wait_for(lambda: any("ORDERS" in row for row in test.rows()), "the calls")
    test.tab("faults")
    browser.write("#only-program", "ECHO")
    browser.write("#only-times", "1")
    browser.click("#fault-duplicate")
    browser.wait_for(lambda: browser.text("#panel table"), "the fault")
    clients[0].ask(b"ECHO", b"Hello, Gateway!", user=b"ANNA")
    browser.click("#hold")
    clients[0].call(b"ECHO", b"Hello, Gateway!", user=b"ANNA")
    test.tab("calls")
    browser.wait_for(lambda: any("under way" in row for row in test.rows()), "a held call")
    browser.resize(1280, 720)
    browser.wait_for(lambda: browser.run("return window.innerWidth === 1280 && window.innerHeight === 720"),
             "the size")
    order = browser.run("return [...document.querySelectorAll('#rows .row')]"
                        ".find((row) => row.innerText.includes('ORDERS')).id")
    browser.click("#" + order)
    browser.wait_for(lambda: browser.text("#detail .dump"), "the call")
    browser.picture(os.path.join(folder, "control-calls.png"))
    browser.run("document.getElementById('detail').scrollTop = "
                "document.querySelector('.dump').offsetTop - 90")
    browser.scheme("dark")
    browser.picture(os.path.join(folder, "control-dump.png"))
    browser.scheme("light")
    browser.key("\ue00c")
    test.tab("faults")
    browser.wait_for(lambda: browser.text("#panel .fault"), "the faults")
    browser.picture(os.path.join(folder, "control-faults.png"))
    test.tab("calls")
    browser.resize(400, 720)
    browser.wait_for(lambda: browser.run("return window.innerWidth === 400"), "the size")
    browser.wait_for(test.rows, "the rows")
    browser.run("document.activeElement.blur()")
    browser.picture(os.path.join(folder, "control-narrow.png"))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("daemon")
    parser.add_argument("echo")
    parser.add_argument("--pictures", metavar="FOLDER")
    options = parser.parse_args()
    failed = []
    with tempfile.TemporaryDirectory(prefix="gateway-page-", ignore_cleanup_errors=True) as folder:
        test = None
        try:
            test = Test(options.daemon, options.echo, folder)
            if options.pictures:
                make_pictures(test, options.pictures)
                return 0
            for case in test.cases():
                name = case.__name__.replace("_", " ")
                try:
                    case()
                    print(f"ok      {name}", flush=True)
                except Failed as problem:
                    failed.append(name)
                    print(f"FAILED  {name}: {problem}", flush=True)
                    break
        except Failed as problem:
            print(f"FAILED  {problem}", flush=True)
            return 1
        finally:
            if test is not None:
                test.end()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
