"""The page of a recorded run, looked at with a real browser: Debian's Chromium without a window."""

from __future__ import annotations

import argparse
import json
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.remote.webelement import WebElement
from selenium.webdriver.support.ui import WebDriverWait

from simulator import Camera, Reset, Send, Wait
from simulator.cli.recordings import trace
from simulator.web.server import PageServer
from support import wait_end

OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
           "--disable-background-networking", "--disable-component-update", "--disable-dev-shm-usage"]
SECONDS = 20
PHONE, DESK = 360, 1280
HOSTILE = "</script><script>window.harmed = 1</script><img src=x onerror='window.harmed = 1'><b id=harmed>"
# The widest that anything reaches to the right, of what is not inside a box that scrolls or cuts it.
OVERFLOWING = """
const cut = (element) => {
    for (let box = element.parentElement; box; box = box.parentElement)
        if (getComputedStyle(box).overflowX !== "visible" && !["BODY", "HTML"].includes(box.tagName)) return true;
    return false;
};
return [...document.querySelectorAll("body *")].filter((element) => element.getBoundingClientRect().right
    > document.documentElement.clientWidth + 0.5 && !cut(element)).map((element) => element.outerHTML.slice(0, 200));
"""


@pytest.fixture(scope="module")
def page(tmp_path_factory: pytest.TempPathFactory) -> str:
    """The address of the page of a run with a page fetched in vain, a slow import and hostile texts."""
    folder = tmp_path_factory.mktemp("trace")
    with Camera(recording=folder / "run") as camera:
        camera.platform.picture_sizes = (20_000, 30_000)
        camera.itgt.not_ready_answers = 5
        camera.client.command("whiteListDown", camera.platform.task(31, cameraCode=HOSTILE))
        wait_end(camera, timeout=60)
        begin = len(camera.journal)
        camera.platform.script(camera.platform.task_path, [Send(b"HTTP/1.1 200 " + HOSTILE.encode()), Wait(0.5),
                                                            Reset()])
        camera.client.command("whiteListDown", camera.platform.task(1))
        wait_end(camera, begin)
        camera.client.command("faceNotHitDown", {"FaceID": 7})
    parser = argparse.ArgumentParser()
    trace.add_arguments(parser)
    assert trace.run(parser.parse_args([str(folder / "run"), "--html", str(folder / "page.html")])) == 0
    return (folder / "page.html").as_uri()


@pytest.fixture(scope="module")
def chromium(tmp_path_factory: pytest.TempPathFactory) -> Iterator[webdriver.Chrome]:
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for word in (*OPTIONS, f"--user-data-dir={tmp_path_factory.mktemp('chromium')}"):
        options.add_argument(word)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
    yield driver
    driver.quit()


@pytest.fixture
def show(chromium: webdriver.Chrome, page: str) -> Iterator[Callable[..., webdriver.Chrome]]:
    """Opens the page: show(width=1280, scheme="light"). At the end nothing may have complained."""
    def opened(width: int = DESK, scheme: str = "light") -> webdriver.Chrome:
        chromium.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": width == PHONE})
        chromium.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        chromium.get(page)
        wait(chromium, lambda: chromium.find_elements(By.CSS_SELECTOR, ".row"))
        return chromium
    yield opened
    assert chromium.get_log("browser") == []
    assert chromium.execute_script("return window.harmed ?? null") is None


def wait(driver: webdriver.Chrome, condition: Callable[[], Any]) -> Any:
    return WebDriverWait(driver, SECONDS, poll_frequency=0.05).until(lambda _: condition())


def messages(driver: webdriver.Chrome, text: str) -> list[WebElement]:
    """The messages whose spoken description contains a text."""
    return driver.find_elements(By.CSS_SELECTOR, f"button.message[aria-label*={json.dumps(text)}]")


def unfold(driver: webdriver.Chrome, message: WebElement) -> WebElement:
    driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", message)
    message.click()
    assert message.get_attribute("aria-expanded") == "true"
    return message.find_element(By.XPATH, "../..").find_element(By.CSS_SELECTOR, ".detail")


def search(driver: webdriver.Chrome, text: str) -> str:
    """Types into the search box; returns what it says it found."""
    found = driver.find_element(By.ID, "found")
    before = found.text
    driver.find_element(By.ID, "search").send_keys(text)
    wait(driver, lambda: found.text != before)
    return found.text


def lightness(driver: webdriver.Chrome, selector: str, name: str) -> int:
    """The mean of the three colours of a property, 0 to 255."""
    colour = driver.execute_script("return getComputedStyle(document.querySelector(arguments[0]))[arguments[1]]",
                                   selector, name)
    return sum(int(part) for part in colour[colour.index("(") + 1:-1].split(",")[:3]) // 3


def test_overview_tells_the_run(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    stages = [element.text.split("\n")[0] for element in driver.find_elements(By.CSS_SELECTOR, "button.stage")]
    assert [name for name in stages if name != "Idle"] == [  # which it is on a slow machine
        "Start", "whiteListDown", "page 0 to 29", "page 30 to 30", "whiteListDown", "page 0 to 0", "faceNotHitDown",
        "Stop"]
    first, second, broken = driver.find_elements(By.CSS_SELECTOR, ".stage.page > svg")
    for whole in (first, second):
        assert [bar.get_attribute("class") for bar in whole.find_elements(By.TAG_NAME, "rect")] == [
            "fetch", "import", "report"]
        widths = [bar.rect["width"] for bar in whole.find_elements(By.TAG_NAME, "rect")]
        assert widths[1] > 5 * widths[0] > 0, "the import waits for five seconds"
    assert [bar.get_attribute("class") for bar in broken.find_elements(By.TAG_NAME, "rect")] == ["fetch"]
    assert len(broken.find_elements(By.CSS_SELECTOR, ".mark")) == 1
    numbers = {tile.find_element(By.TAG_NAME, "span").text: tile.find_element(By.TAG_NAME, "b").text
               for tile in driver.find_elements(By.CSS_SELECTOR, ".number")}
    assert [numbers[name] for name in ("pages", "pictures", "HTTPS requests", "failure")] == ["3", "31", "5", "1"]


def test_arrows_go_from_process_to_process(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    heads = {element.text: element.rect["x"] + element.rect["width"] / 2
             for element in driver.find_elements(By.CSS_SELECTOR, ".processes .lanes button")}
    assert list(heads) == ["event cache", "client", "service", "ITGT", "platform"]
    for text, left, right in (("service to ITGT: 7020", "service", "ITGT"),
                              ("ITGT to service: 7020", "service", "ITGT"),
                              ("service to platform: POST", "service", "platform"),
                              ("client to service: command head", "client", "service")):
        line = messages(driver, text)[0].find_element(By.CSS_SELECTOR, ".arrow").rect
        assert abs(line["x"] - heads[left]) < 3 and abs(line["x"] + line["width"] - heads[right]) < 3, text


def test_search_leaves_what_matches(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    assert search(driver, "WHITE30 ImportFileDirectory") == "1 of 1 found"
    message, = driver.find_elements(By.CSS_SELECTOR, "button.message")
    assert "7020 CMD_FACE_IMPORT_FILE request" in message.get_attribute("aria-label")
    assert driver.find_elements(By.CSS_SELECTOR, "mark")
    heading, = driver.find_elements(By.CSS_SELECTOR, ".chapter:not([hidden]) h2 span")
    assert heading.text == "page 30 to 30"
    assert search(driver, " nonsense").startswith("0 of ")
    driver.find_element(By.ID, "search").clear()
    driver.find_element(By.ID, "search").send_keys(" ")
    wait(driver, lambda: len(driver.find_elements(By.CSS_SELECTOR, "button.message")) > 60)


def test_search_finds_the_log(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    assert search(driver, "SendMsgAndRecvResponse err") == "1 of 1 found"
    assert not driver.find_elements(By.CSS_SELECTOR, "button.message"), "nothing that stands beside it"
    assert [element.text for element in driver.find_elements(By.CSS_SELECTOR, ".logs li.error mark")] == [
        "SendMsgAndRecvResponse", "err"]


def test_message_unfolds_into_fields_and_bytes(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    detail = unfold(driver, messages(driver, "ITGT to service: 7020")[0])
    rows = [[cell.text for cell in row.find_elements(By.TAG_NAME, "td")]
            for row in detail.find_elements(By.CSS_SELECTOR, "tbody tr")]
    assert ["ImportFileTaskId", "584", "8", "4300000001"] in rows
    assert ["command", "164", "4", "7020"] in rows
    lines = detail.find_element(By.CSS_SELECTOR, ".bytes").text.splitlines()
    line, = [line for line in lines if line.split()[0] == "576"]
    assert line.split()[1:17] == ["00"] * 8 + ["01", "cb", "4c", "00", "01", "00", "00", "00"], "4300000001 at 584"
    assert "368 bytes of zero" in [line.strip() for line in lines]


def test_field_and_its_bytes_light_up_together(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    detail = unfold(driver, messages(driver, "ITGT to service: 7020")[0])
    row = next(row for row in detail.find_elements(By.CSS_SELECTOR, "tbody tr") if row.text.startswith("command "))
    webdriver.ActionChains(driver).move_to_element(row).perform()
    lit = [cell.text.strip() for cell in detail.find_elements(By.CSS_SELECTOR, ".bytes .lit")]
    assert lit == ["6c", "1b", "00", "00"], "7020 in little-endian"


def test_fault_is_marked(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    marked = driver.find_elements(By.CSS_SELECTOR, ".faulty button.message")
    assert len(marked) == 2
    assert marked[0].get_attribute("aria-label").startswith("platform: a script answers the next request")
    assert "as they are" in marked[1].get_attribute("aria-label")
    assert marked[1].find_element(By.CSS_SELECTOR, ".fault").text == "fault: script"


def test_what_repeats_is_folded(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    before = len(messages(driver, "7021"))
    fold = driver.find_elements(By.CSS_SELECTOR, "button.more")[0]
    assert "more times: 7021 CMD_FACE_IMPORT_PROGRESS" in fold.text
    driver.execute_script("arguments[0].click()", fold)
    assert len(messages(driver, "7021")) > before


@pytest.mark.parametrize("width", [PHONE, 768, DESK])
def test_nothing_overflows(show: Callable[..., webdriver.Chrome], width: int) -> None:
    driver = show(width)
    for text in ("ITGT to service: 7020", "client to service: command whiteListDown", "service to platform: POST",
                 "as they are"):
        unfold(driver, messages(driver, text)[0])
    assert driver.execute_script("return innerWidth") == width
    assert driver.execute_script("const page = document.documentElement; return page.scrollWidth <= page.clientWidth")
    assert driver.execute_script(OVERFLOWING) == []


def test_dark_and_light(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show(scheme="dark")
    assert lightness(driver, "body", "backgroundColor") < 40 and lightness(driver, "body", "color") > 200
    driver = show(scheme="light")
    assert lightness(driver, "body", "backgroundColor") > 230 and lightness(driver, "body", "color") < 60
    button = driver.find_element(By.ID, "theme")
    seen = []
    for _ in range(3):
        button.click()
        seen.append((button.text[2:], lightness(driver, "body", "backgroundColor") < 40))
    assert seen == [("light", False), ("dark", True), ("auto", False)]


def test_hostile_text_is_text(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    detail = unfold(driver, messages(driver, "client to service: command whiteListDown")[0])
    assert HOSTILE in detail.find_element(By.TAG_NAME, "pre").text
    assert not driver.find_elements(By.CSS_SELECTOR, "#harmed, body img")
    assert len(driver.find_elements(By.TAG_NAME, "script")) == 2, "the page's own"


def test_log_can_be_hidden(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    log = driver.find_elements(By.CSS_SELECTOR, ".logs li")[0]
    assert log.is_displayed()
    driver.find_element(By.XPATH, "//div[@id='switches']/button[text()='log']").click()
    assert not log.is_displayed()
    assert driver.execute_script(OVERFLOWING) == []


def in_view(driver: webdriver.Chrome, element: WebElement) -> bool:
    return bool(driver.execute_script("const box = arguments[0].getBoundingClientRect();"
                                      "return box.top >= 0 && box.bottom <= innerHeight", element))


def test_hit_in_the_details_is_opened_and_marked(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    assert search(driver, "ImportFileTaskId").startswith("1 of ")
    detail, = driver.find_elements(By.CSS_SELECTOR, ".detail")
    assert detail.find_element(By.XPATH, "..").get_attribute("class").split()[-1] == "target"
    mark = detail.find_elements(By.TAG_NAME, "mark")[0]
    assert mark.text == "ImportFileTaskId" and wait(driver, lambda: in_view(driver, mark))
    opened = driver.find_element(By.CSS_SELECTOR, ".target").get_attribute("id")
    driver.find_element(By.ID, "search").send_keys(Keys.ENTER)
    wait(driver, lambda: driver.find_element(By.CSS_SELECTOR, ".target").get_attribute("id") != opened)
    assert driver.find_element(By.ID, "found").text.startswith("2 of ")


@pytest.mark.parametrize("name", ["Task-result report", "/tmp/II", "StatusCode", "metadata_servfile26214"])
def test_search_finds_the_names_of_messages_and_sockets(show: Callable[..., webdriver.Chrome], name: str) -> None:
    driver = show()
    assert search(driver, name).startswith("1 of ")
    found = driver.find_element(By.CSS_SELECTOR, ".target")
    assert name.lower().split()[0] in {mark.text.lower() for mark in found.find_elements(By.TAG_NAME, "mark")}


def test_failure_leads_to_its_place(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    failure, = driver.find_elements(By.CSS_SELECTOR, "#failures li.failed")
    assert failure.find_element(By.TAG_NAME, "a").text.startswith("page 0 to 0 was not fetched: ")
    assert failure.find_element(By.CSS_SELECTOR, ".origin").text == "injected: script"
    failure.find_element(By.TAG_NAME, "a").click()
    record = wait(driver, lambda: driver.find_elements(By.CSS_SELECTOR, "li.error.target"))[0]
    assert record.text.startswith("SendMsgAndRecvResponse err:") and wait(driver, lambda: in_view(driver, record))


def test_address_names_a_message(show: Callable[..., webdriver.Chrome], page: str) -> None:
    driver = show()
    detail = unfold(driver, messages(driver, "ITGT to service: 7031")[0])
    address = detail.find_element(By.LINK_TEXT, "link to this message").get_attribute("href")
    assert address.startswith(page + "#message-")
    driver.get("about:blank")
    driver.get(address)
    target = wait(driver, lambda: driver.find_elements(By.CSS_SELECTOR, ".row.target"))[0]
    assert "7031 CMD_FACE_IMPORT_PAGE" in target.text
    assert wait(driver, lambda: in_view(driver, target.find_element(By.CSS_SELECTOR, ".line")))
    assert target.find_elements(By.CSS_SELECTOR, ".detail table")


def test_address_of_a_folded_message_and_of_a_log_record(show: Callable[..., webdriver.Chrome], page: str) -> None:
    driver = show()
    numbers = driver.execute_script("return document.querySelectorAll('.row[id], .logs li[id]').length")
    shown = {element.get_attribute("id") for element in driver.find_elements(By.CSS_SELECTOR, ".row[id], .logs li[id]")}
    assert len(shown) == numbers
    last = max(int(name.partition("-")[2]) for name in shown)
    hidden = [number for number in range(1, last) if f"message-{number}" not in shown]
    for number in (hidden[0], hidden[-1]):
        driver.get("about:blank")
        driver.get(f"{page}#message-{number}")
        target = wait(driver, lambda: driver.find_elements(By.CSS_SELECTOR, ".target"))[0]
        assert target.get_attribute("id") == f"message-{number}"
        assert wait(driver, lambda: in_view(driver, target.find_element(By.XPATH, "(self::li|.//*[@class='line'])")))


def test_answer_and_request_show_the_time_between(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    answer = messages(driver, "ITGT to service: 7020")[0]
    after = answer.find_element(By.CSS_SELECTOR, ".after").text
    assert after.startswith("after ") and after.endswith("s")
    detail = unfold(driver, answer)
    assert "answers 7020 CMD_FACE_IMPORT_FILE request " + after in detail.text
    detail.find_element(By.LINK_TEXT, "7020 CMD_FACE_IMPORT_FILE request").click()
    asked = wait(driver, lambda: driver.find_elements(By.CSS_SELECTOR, ".row.target"))[0]
    assert "answered by 7020 CMD_FACE_IMPORT_FILE reply " + after in asked.text


def press(driver: webdriver.Chrome, text: str) -> None:
    driver.find_element(By.XPATH, f"//button[contains(@class, 'only') and text()='{text}']").click()


def all_spoken(driver: webdriver.Chrome) -> list[str]:
    return [str(message.get_attribute("aria-label"))
            for message in driver.find_elements(By.CSS_SELECTOR, "button.message")]


def test_only_one_process(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    press(driver, "ITGT")
    spoken = all_spoken(driver)
    assert spoken and all("ITGT" in text.partition(":")[0] for text in spoken)
    press(driver, "client")
    spoken = all_spoken(driver)
    assert {text.partition(":")[0].replace("service", "").replace(" to ", "") for text in spoken} == {"ITGT", "client"}


def test_what_is_open_stays_open(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    unfold(driver, messages(driver, "ITGT to service: 7031")[0])
    press(driver, "ITGT")
    assert len(driver.find_elements(By.CSS_SELECTOR, ".detail")) == 1
    press(driver, "ITGT")
    assert len(driver.find_elements(By.CSS_SELECTOR, ".detail")) == 1


def test_only_failures(show: Callable[..., webdriver.Chrome]) -> None:
    driver = show()
    press(driver, "only failures")
    assert {heading.text for heading in driver.find_elements(By.CSS_SELECTOR, ".chapter:not([hidden]) h2 span")} == {
        "page 0 to 0"}
    assert len(driver.find_elements(By.CSS_SELECTOR, ".row.faulty")) == 2
    assert len(driver.find_elements(By.CSS_SELECTOR, ".logs li")) == 1
    press(driver, "only failures")
    assert len(driver.find_elements(By.CSS_SELECTOR, "button.message")) > 60


def test_page_of_a_running_camera_grows(chromium: webdriver.Chrome) -> None:
    with Camera() as camera:
        with PageServer(camera.journal, camera.path, {"build": "host"}) as server:
            chromium.get(server.url)
            wait(chromium, lambda: chromium.find_element(By.ID, "state").text == "it goes on")
            camera.client.command("faceNotHitDown", {"FaceID": 7})
            wait(chromium, lambda: messages(chromium, "service to client: reply: status 200"))
            unfold(chromium, messages(chromium, "client to service: command faceNotHitDown")[0])
            camera.platform.script(camera.platform.task_path, [Wait(0.01), Reset()])
            camera.client.command("whiteListDown", camera.platform.task(1))
            failure = wait(chromium, lambda: chromium.find_elements(By.CSS_SELECTOR, "#failures li.failed"))[0]
            assert "page 0 to 0 was not fetched: " in failure.text
            names = [name.text for name in chromium.find_elements(By.CSS_SELECTOR, "button.stage .name")]
            assert "page 0 to 0" in names
            detail, = chromium.find_elements(By.CSS_SELECTOR, ".detail")
            assert '"FaceID": 7' in detail.text, "what the reader opened stays open"
            assert chromium.get_log("browser") == []
        wait(chromium, lambda: chromium.find_element(By.ID, "state").text == "it has ended")
    chromium.get_log("browser")  # that nobody answers any more


def test_text_of_a_running_camera_is_text(chromium: webdriver.Chrome) -> None:
    with Camera() as camera, PageServer(camera.journal, camera.path, {}) as server:
        chromium.get(server.url)
        camera.client.command("faceNotHitDown", {HOSTILE: HOSTILE})
        message = wait(chromium, lambda: messages(chromium, "client to service: command faceNotHitDown"))[0]
        assert HOSTILE in unfold(chromium, message).text
        assert chromium.execute_script("return window.harmed ?? null") is None
        chromium.get("about:blank")
        assert chromium.get_log("browser") == []
