"""The lab dashboard in a real browser (headless Chromium through Selenium):
a lab of three switches joins, one switch's ports show and follow its model,
a command queued from the form comes back with its result, a line the switch
logs shows up in the syslog pane, and a screenshot is kept."""

import hashlib
import os
import shutil
import time
import urllib.request

import pytest

from tests.e2e.kit import SOURCE

webdriver = pytest.importorskip("selenium.webdriver")
from selenium.common.exceptions import StaleElementReferenceException  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import Select, WebDriverWait  # noqa: E402

CHROMEDRIVER = shutil.which("chromedriver") or "/usr/bin/chromedriver"
ARTIFACTS = os.environ.get("ORKAD_ARTIFACTS") or os.path.join(SOURCE, "build", "test-artifacts")


@pytest.fixture(scope="module")
def runner(lab_runner):
    return lab_runner(devices=3)


@pytest.fixture(scope="module")
def browser(runner):
    if not os.path.exists(CHROMEDRIVER) or not shutil.which("chromium"):
        pytest.skip("chromium and chromium-driver are not installed (scripts/bootstrap.sh)")
    from selenium.webdriver.chrome.service import Service
    opts = webdriver.ChromeOptions()
    for a in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
              "--window-size=1400,2000", "--no-proxy-server"):
        opts.add_argument(a)
    opts.binary_location = shutil.which("chromium")
    d = webdriver.Chrome(service=Service(CHROMEDRIVER), options=opts)
    yield d
    d.quit()


def wait(browser, fn, timeout, what):
    try:
        return WebDriverWait(browser, timeout, poll_frequency=0.2).until(lambda _: fn())
    except Exception as e:  # noqa: BLE001 - the timeout says what it waited for
        raise AssertionError(f"timed out after {timeout}s waiting for {what}") from e


def cells(browser, selector):
    """The texts of the elements `selector` picks, read in one go: the page
    redraws its tables every second, so elements held across calls go stale."""
    return browser.execute_script(
        "return Array.from(document.querySelectorAll(arguments[0]), e => e.textContent)",
        selector)


def click(browser, selector):
    """Clicks what `selector` picks, again if the page redrew it meanwhile."""
    def once():
        try:
            browser.find_element(By.CSS_SELECTOR, selector).click()
            return True
        except StaleElementReferenceException:
            return False
    wait(browser, once, 5, f"a click on {selector}")


def queue_from_form(browser, name, params=None):
    Select(browser.find_element(By.ID, "command-name")).select_by_value(name)
    if params is not None:
        area = browser.find_element(By.ID, "command-params")
        area.clear()
        area.send_keys(params)
    before = len(cells(browser, "#results tbody tr"))
    browser.find_element(By.ID, "command-queue").click()
    wait(browser, lambda: len(cells(browser, "#results tbody tr")) > before, 10,
         f"{name} listed")
    # The newest is listed first.
    return browser.execute_script(
        "return document.querySelector('#results tbody tr').dataset.id")


def result_row(browser, cid):
    return cells(browser, f'#results tbody tr[data-id="{cid}"] td') or None


def test_dashboard_drives_a_fleet_of_three(runner, browser):
    browser.get(runner.dashboard)
    assert browser.title == "orkad lab"

    # All three switches connect, each with the runner's serial and model.
    def connected():
        rows = dict(browser.execute_script(
            "return Array.from(document.querySelectorAll('#devices tbody tr'),"
            " r => [r.dataset.serial, r.querySelector('td.conn').textContent])"))
        return rows if len(rows) == 3 and set(rows.values()) == {"connected"} else None
    rows = wait(browser, connected, 40, "three connected devices")
    assert set(rows) == {runner.device(n)["serial"] for n in (1, 2, 3)}
    models = cells(browser, "#devices tbody tr td:nth-child(3)")
    assert models == [f"{runner.device(n)['model']} ({runner.device(n)['ports']} ports)"
                      for n in (1, 2, 3)]

    # One switch: its ports after "set.status", queued from the form.
    sw2 = runner.device(2)
    model = runner.model(2)
    click(browser, f'#devices tr[data-serial="{sw2["serial"]}"]')
    wait(browser, lambda: browser.find_element(By.ID, "device-serial").text == sw2["serial"], 5,
         "the device selected")
    cid = queue_from_form(browser, "set.status")
    row = wait(browser, lambda: (r := result_row(browser, cid)) and r[2] == "answered" and r, 30,
               "the set.status result")
    assert row[:5] == [cid, "set.status", "answered", "0", ""]
    sent = [c for c in runner.lab.call("GET", "/commands")["delivered"]
            if c["command"]["id"] == cid][0]
    assert sent["to"] == sw2["serial"] and sent["command"]["params"]["interval"] == 10000

    wait(browser, lambda: len(cells(browser, "#ports tbody tr")) == len(model["ports"]), 30,
         "the port table")
    names = cells(browser, "#ports tbody td:nth-child(2)")
    assert names == [p["name"] for p in model["ports"]]
    link = '#ports tbody tr[data-port="1"] td.link'
    assert cells(browser, link) == [model["ports"][0]["link"]] == ["up"]

    # Pull port 1's link down in the switch model: the row follows.
    model = runner.model(2)
    model["ports"][0]["link"] = "down"
    runner.write_model(2, model)
    wait(browser, lambda: cells(browser, link) == ["down"], 30, "port 1's link down on the page")
    assert browser.execute_script(f"return document.querySelector('{link}').className") \
        == "link down"

    # Syslog: forwarding on from the form, then a line the switch logs.
    cid = queue_from_form(browser, "set.logging")
    wait(browser, lambda: (r := result_row(browser, cid)) and r[3] == "0", 30,
         "the set.logging result")
    text = f"dashboard test {time.time():.0f}"
    box = browser.find_element(By.ID, "syslog-text")
    box.send_keys(text)
    browser.find_element(By.CSS_SELECTOR, "#syslog-send button").click()
    wait(browser, lambda: text in browser.find_element(By.ID, "syslog").text, 30,
         "the line in the syslog pane")
    line = runner.lab.call("GET", "/syslog", query={"contains": text})["lines"][0]
    assert line["serial"] == sw2["serial"]
    # The filter hides lines without its text.
    flt = browser.find_element(By.ID, "syslog-filter")
    flt.send_keys("no line holds this")
    wait(browser, lambda: text not in browser.find_element(By.ID, "syslog").text, 5,
         "the filter")
    flt.clear()
    flt.send_keys(text)
    wait(browser, lambda: browser.find_element(By.ID, "syslog").text.endswith(text), 5,
         "the filtered line")

    os.makedirs(ARTIFACTS, exist_ok=True)
    shot = os.path.join(ARTIFACTS, "dashboard.png")
    assert browser.save_screenshot(shot)
    with open(shot, "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"


def test_dashboard_plots_statistics_and_offers_archives(runner, browser):
    sw3 = runner.device(3)
    browser.get(runner.dashboard)
    row = f'#devices tr[data-serial="{sw3["serial"]}"]'
    wait(browser, lambda: browser.find_elements(By.CSS_SELECTOR, row), 20, "the device list")
    click(browser, row)
    stats = queue_from_form(browser, "set.statistics")
    diags = queue_from_form(browser, "get.diagnostics")
    for cid in (stats, diags):
        wait(browser, lambda: (r := result_row(browser, cid)) and r[3] == "0", 60,
             f"the result of {cid}")

    # The archive: a link that gives the uploaded bytes back.
    wait(browser, lambda: cells(browser, "#archives a"), 30, "the archive link")
    text, href = browser.execute_script(
        "const a = document.querySelector('#archives a'); return [a.textContent, a.href]")
    record = runner.lab.call("GET", "/archives", query={"serial": sw3["serial"]})["archives"][0]
    assert text == record["filename"]
    with urllib.request.urlopen(href, timeout=10) as r:
        assert hashlib.sha256(r.read()).hexdigest() == record["sha256"]

    # A plot per interface once a statistics document came in.
    wait(browser, lambda: cells(browser, "svg.plot"), 40, "a plot")
    series = runner.lab.call("GET", "/statistics", query={"serial": sw3["serial"]})
    shown = browser.execute_script(
        "return Array.from(document.querySelectorAll('svg.plot'),"
        " s => [s.dataset.interface, s.querySelectorAll('polyline').length])")
    assert shown and {name for name, _ in shown} <= set(series["interfaces"])
    assert {lines for _, lines in shown} == {4}


def health_cell(browser, field):
    got = cells(browser, f'#health tr[data-field="{field}"] td')
    return got[0] if got else None


def stream_row(browser, name):
    return dict(browser.execute_script(
        "const r = document.querySelector(`#streams tr[data-stream=\"${arguments[0]}\"]`);"
        " return r ? Array.from(r.querySelectorAll('td'), (c, i) =>"
        " [c.className.split(' ')[0] || String(i), c.textContent]) : []", name))


def test_dashboard_shows_a_device_s_health(runner, browser):
    sw1 = runner.device(1)
    serial = sw1["serial"]
    health = f"/devices/{serial}/health"
    browser.get(runner.dashboard)
    row = f'#devices tr[data-serial="{serial}"]'
    wait(browser, lambda: browser.find_elements(By.CSS_SELECTOR, row), 20, "the device list")
    click(browser, row)
    wait(browser, lambda: health_cell(browser, "heartbeat-last"), 10, "the health table")

    # Heartbeats every second, answered, with the token the lab issued.
    wait(browser, lambda: (health_cell(browser, "heartbeat-answer") or "").startswith("200, "), 20,
         "an answered heartbeat")
    assert health_cell(browser, "heartbeat-last").endswith(" s ago)")
    h = runner.lab.call("GET", health)
    assert health_cell(browser, "token").startswith("held, expires ")
    assert health_cell(browser, "vpn") == (h["vpn"]["address"] or "none")
    assert health_cell(browser, "firmware").startswith(
        f"{h['firmware']['running']} (current-firmware query, ")
    assert health_cell(browser, "phone-home").endswith(", answered 200")
    assert f"serial={serial} " in health_cell(browser, "phone-home-query")
    assert health_cell(browser, "uptime").endswith(" s, the last heartbeat's)")
    assert health_cell(browser, "heartbeat-interval").endswith("not set by the lab")

    # set.heartbeat from the form: the interval the lab set.
    cid = queue_from_form(browser, "set.heartbeat",
                          '{"interval": 2000, "serviceLink": {"href": "/heartbeat"}}')
    wait(browser, lambda: (r := result_row(browser, cid)) and r[3] == "0", 30,
         "the set.heartbeat result")
    wait(browser, lambda: health_cell(browser, "heartbeat-interval").endswith("; 2 s set"), 10,
         "the interval set")

    # The lab refuses sw1's status stream: the page shows the refusal.
    runner.lab.call("POST", "/scripts", {"path": "/api/status/sw1", "status": 503,
                                         "count": None})
    cid = queue_from_form(browser, "set.status",
                          '{"interval": 10000, "serviceLink": {"href": "/status/sw1"}}')
    wait(browser, lambda: (r := result_row(browser, cid)) and r[3] == "0", 30,
         "the set.status result")
    wait(browser, lambda: stream_row(browser, "status")["interval"] == "10 s", 5,
         "the interval the daemon took")
    wait(browser, lambda: stream_row(browser, "status")["answer"] == "503", 45,
         "the refused status post")
    st = stream_row(browser, "status")
    assert (st["0"], st["enabled"], st["link"], st["posted"]) == ("status", "yes", "/status/sw1",
                                                                  "0")
    assert int(st["failed"]) >= 1 and st["last"].endswith(" s ago)")
    assert browser.execute_script(
        "return document.querySelector('#streams tr[data-stream=\"status\"] td.answer')"
        ".className") == "answer failed"
    assert runner.lab.call("GET", health)["streams"]["status"]["answer"] == 503
    # The streams the lab never started.
    sx = stream_row(browser, "statistics")
    assert (sx["enabled"], sx["interval"], sx["last"], sx["answer"]) == ("no", "", "never", "")
    assert stream_row(browser, "syslog")["lines"] == "0"

    os.makedirs(ARTIFACTS, exist_ok=True)
    assert browser.save_screenshot(os.path.join(ARTIFACTS, "dashboard-health.png"))
