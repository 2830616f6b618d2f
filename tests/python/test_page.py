"""The page, in a browser without a screen, at two widths; no other browser is asked."""

import os
import shutil
import time

import pytest

from wideboard import CONTROL, MEASURED, Board

webdriver = pytest.importorskip("selenium.webdriver", reason="selenium is not installed")
if not (shutil.which("chromium") and shutil.which("chromedriver")):
    pytest.skip("there is no chromium with its driver", allow_module_level=True)

from selenium.common.exceptions import WebDriverException  # noqa: E402
from selenium.webdriver.chrome.service import Service  # noqa: E402
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402

WIDTHS = [(1280, 900), (600, 900)]


def browser(board: Board, width: int, height: int):
    options = webdriver.ChromeOptions()
    options.add_argument("--headless=new")
    options.add_argument(f"--window-size={width},{height}")
    options.add_argument("--disable-dev-shm-usage")
    if os.geteuid() == 0:
        options.add_argument("--no-sandbox")  # root has none of it, and Chromium would not start
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = Service(shutil.which("chromedriver"), env=board.environment)
    try:
        return webdriver.Chrome(service=service, options=options)
    except WebDriverException as error:  # not of the page, which nobody has opened yet
        pytest.skip(f"chromium does not start here: {error.msg}")


class Page:
    def __init__(self, driver) -> None:
        self.driver = driver

    def all(self, selector: str) -> list:
        return self.driver.find_elements("css selector", selector)

    def text(self, selector: str) -> str:
        return self.driver.execute_script(
            "return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def press(self, *keys: str) -> None:
        """One after the other, wherever they go."""
        for key in keys:
            ActionChains(self.driver).send_keys(key).perform()

    def until(self, condition, seconds: float = 20):
        end = time.monotonic() + seconds
        while not (found := condition()):
            assert time.monotonic() < end, self.text("body")[:2000]
            time.sleep(0.02)
        return found

    def go(self, place: str) -> None:
        self.driver.execute_script("location.hash = arguments[0]", place)


@pytest.fixture(scope="module")
def board(tmp_path_factory):
    made = Board(tmp_path_factory.mktemp("board"))
    try:
        made.start_agent()
        yield made
    finally:
        made.end()


@pytest.fixture(scope="module", params=WIDTHS, ids=lambda size: f"{size[0]} wide")
def opened(request, board):
    address = board.start_page("--write")
    driver = browser(board, *request.param)
    try:
        driver.get(address)
        yield Page(driver)
    finally:
        driver.quit()


@pytest.fixture
def page(opened):
    """At the board, with all chips up."""
    opened.go("#/")
    opened.until(lambda: len(opened.all(".chip.good")) == 4)
    yield opened
    # Nothing was refused by the policy, and nothing went wrong in a script.
    said = [entry["message"] for entry in opened.driver.get_log("browser")]
    assert [each for each in said if " 502 " not in each] == []


def test_a_field_that_is_edited_is_in_the_register(page, board):
    page.go("#/chip/sensor")
    row = 'tr[data-field="channel3.gain"]'
    page.until(lambda: page.all(row))
    value = 1 if (board.register("sensor", 4) >> 14) != 1 else 2
    page.driver.execute_script("arguments[0].scrollIntoView({ block: 'center' })", page.all(row)[0])
    page.all(f"{row} .edit")[0].click()
    page.until(lambda: page.all("#value"))
    page.press(f"x{2 ** value}", Keys.ENTER)
    page.until(lambda: "CHANNEL3" in page.text("#plan"))
    before = board.register("sensor", 4)
    assert f"{before:#06x}" in page.text("#plan")
    wanted = before & 0x3fff | value << 14
    assert f"{wanted:#06x}" in page.text("#plan")
    page.press(Keys.ESCAPE)  # not yet
    page.until(lambda: "nothing was done" in page.text("#message"))
    assert board.register("sensor", 4) == before
    page.press("e", f"x{2 ** value}", Keys.ENTER)  # it is the chosen one
    page.until(lambda: page.all("#confirm"))
    page.all("#confirm")[0].click()
    page.until(lambda: "was written" in page.text("#message"))
    assert board.register("sensor", 4) == wanted
    page.until(lambda: page.text(f"{row} td:nth-child(4)") == f"x{2 ** value}")
    # What cannot be is refused before anything is sent.
    page.press("e", "x9", Keys.ENTER)
    page.until(lambda: "x9" in page.text("#message"))
    page.go("#/chip/sensor/history")
    page.until(lambda: "channel3.gain" in page.text(".history tbody tr"))
    assert "korureg-web" in page.text(".history tbody tr")


def seconds_until_red(page, board) -> float:
    board.sim("--unplug", "power")
    begin = time.monotonic()
    page.until(lambda: page.all('.chip.wrong[data-chip="power"]'))
    took = time.monotonic() - begin
    board.sim("--plug", "power")
    page.until(lambda: len(page.all(".chip.good")) == 4)
    return took


def test_a_chip_that_goes_turns_red_in_time(page, board):
    board.sim("--unplug", "power")
    page.until(lambda: page.all('.chip.wrong[data-chip="power"]'))
    card = page.all('.chip[data-chip="power"] strong')[0]
    red, green, _ = [int(each) for each in card.value_of_css_property("color")
                     .split("(")[1].rstrip(")").split(",")[:3]]
    assert red > 2 * green and "no answer" in card.text
    assert len(page.all(".chip.good")) == 3
    board.sim("--plug", "power")
    page.until(lambda: len(page.all(".chip.good")) == 4)
    assert any(seconds_until_red(page, board) < 2 for _ in range(5))  # on a machine that may be busy
    board.stop_agent()
    page.until(lambda: "agent" in page.text("#banner") and len(page.all(".chip.wrong")) == 4)
    board.start_agent()
    page.until(lambda: len(page.all(".chip.good")) == 4 and page.text("#banner") == "")


def test_what_is_said_of_a_field_is_shown_as_it_is(page):
    page.go("#/chip/drive")
    cell = 'tr[data-field="control.note"] .about'
    page.until(lambda: page.all(cell))
    shown = page.text(cell)
    assert "<img src=x onerror=alert(1)></script><b>bold</b>" in shown and "\\u202e" in shown
    assert page.all("main img, main b") == []
    page.go("#/chip/%3Cimg%20src=x%3E")
    page.until(lambda: "<img src=x>" in page.text("#places"))
    assert page.all("img") == []


def test_what_differs_is_shown_and_nothing_is_read_unasked(page, board):
    page.go("#/chip/clock")
    page.until(lambda: page.all('[data-register="CHANNEL2"]'))
    board.sim("--ledger")
    before = board.register("clock", 3)
    board.sim("--set", f"clock:3={before ^ 0x1000:#x}")
    page.press("R")
    page.until(lambda: page.all('[data-register="CHANNEL2"].differs .other'))
    page.press("d")
    page.until(lambda: page.all('[data-register="CHANNEL2"] > header.chosen'))
    page.until(lambda: "°C" in page.text('tr[data-field="MEASURED.VALUE"] td:nth-child(5)'))
    assert page.text('tr[data-field="FAULTS.SEEN"] td:nth-child(5)') == "–"
    board.sim("--set", f"clock:3={before:#x}")
    page.press("r")
    page.until(lambda: not page.all('[data-register="CHANNEL2"].differs'))


def test_keys_lead_everywhere(page, board):
    page.press("?")
    page.until(lambda: "search all names" in page.text("#dialog"))
    page.press(Keys.ESCAPE)
    page.press("j", "j", Keys.ENTER)
    page.until(lambda: "#/chip/drive" in page.driver.current_url)
    page.until(lambda: page.all('[data-register="CONTROL"]'))
    page.press("h")
    page.until(lambda: page.all(".history"))
    page.press("b")
    page.press("b")
    page.until(lambda: len(page.all(".chip")) == 4)
    # A name of another chip, by a part of it.
    page.press("/", "sensor channel17.level")
    page.until(lambda: "CHANNEL17[11:0]" in page.text("#results li.chosen"))
    page.press(Keys.ENTER)
    page.until(lambda: page.all('tr.chosen[data-field="channel17.level"]'))
    page.press("p")
    page.until(lambda: page.text(".plot .value") == "91.5 mV")
    board.sim("--set", f"sensor:{CONTROL + 18}=0x8010")
    page.until(lambda: page.text(".plot .value") == "4 mV" and "L" in page.all(".plot path")[0].get_attribute("d"))
    board.sim("--set", f"sensor:{CONTROL + 18}={0x8000 | 366:#x}")
    page.press("/", "MEASURED", Keys.ESCAPE, "b")
    page.until(lambda: len(page.all(".chip")) == 4)
    assert board.register("sensor", MEASURED) == 0
