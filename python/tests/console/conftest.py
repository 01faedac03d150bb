"""The console as a person meets it: `python3 -m zelmgmt.console` served by
waitress on a free loopback port, over the module's private directory, and
a headless Chromium driving it."""
import os
import subprocess
import sys
import tempfile
import urllib.parse
import urllib.request
from pathlib import Path

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait


def zelctl_path() -> str:
    """The built zelctl: as the test run names it, else beside the library."""
    if os.environ.get("ZELCTL"):
        return os.environ["ZELCTL"]
    return str(Path(os.environ.get("ZELMGMT_LIBRARY", "build/libzelmgmt.so.1")).resolve().parent
               / "tools/zelctl/zelctl")


class Console:
    def __init__(self, directory, *options, env=None):
        self.directory = directory
        self.log_file = tempfile.TemporaryFile(mode="w+")
        self.proc = subprocess.Popen(
            [sys.executable, "-m", "zelmgmt.console", "--uri", directory.uri, "--port", "0",
             "--zelctl", zelctl_path(), *options],
            stdout=subprocess.PIPE, stderr=self.log_file, text=True, env={**os.environ, **(env or {})})
        line = self.proc.stdout.readline()
        if "serving" not in line:
            self.stop()
            raise RuntimeError("the console did not start: " + self.log())
        self.url = line.split("serving ", 1)[1].strip().rstrip("/")

    def log(self) -> str:
        self.log_file.seek(0)
        return self.log_file.read()

    def post(self, path, fields, cookie=None, opener=None):
        """A form sent outside the browser: (status, body)."""
        return self.fetch(path, urllib.parse.urlencode(fields).encode(), cookie, opener)

    def fetch(self, path, data=None, cookie=None, opener=None):
        """(status, body) of one request outside the browser; an `opener` may keep cookies."""
        req = urllib.request.Request(self.url + path, data=data)
        if cookie:
            req.add_header("Cookie", cookie)
        try:
            with (opener or urllib.request.build_opener()).open(req, timeout=60) as r:
                return r.status, r.read().decode()
        except urllib.error.HTTPError as e:
            return e.code, e.read().decode()

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=10)


class Browser:
    def __init__(self, console):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1100,760"):
            options.add_argument(arg)
        self.console = console
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    def open(self, path):
        self.driver.get(self.console.url + path)

    def fill(self, form_action, **fields):
        """Fills the form posting to `form_action` and sends it."""
        self.send(self.driver.find_element(By.CSS_SELECTOR, f'form[action="{form_action}"]'), **fields)

    def send(self, form, **fields):
        for name, value in fields.items():
            element = form.find_element(By.NAME, name)
            if element.tag_name == "select":
                element.find_element(By.XPATH, f'.//option[normalize-space()="{value}" or @value="{value}"]').click()
            else:
                if element.get_attribute("type") != "file":
                    element.clear()
                element.send_keys(value)
        self.click(form.find_element(By.CSS_SELECTOR, "button[type=submit]"))

    def sign_in(self, login, password):
        self.driver.delete_all_cookies()
        self.open("/signin")
        self.fill("/signin", login=login, password=password)

    def follow(self, name):
        """Opens the link or presses the button whose accessible name is `name`."""
        self.click(self.driver.find_element(By.CSS_SELECTOR, f'[aria-label="{name}"]'))

    # Clicks and waits for the page it leads to.  The old page is gone once
    # navigation starts; the next look must wait for the new one, or it may
    # catch a document still being built.
    def click(self, element):
        page = self.driver.find_element(By.TAG_NAME, "html")
        element.click()
        def gone(_):
            try:
                page.is_enabled()
                return False
            except WebDriverException:  # stale, or no longer of the document
                return True
        WebDriverWait(self.driver, 30).until(gone)
        WebDriverWait(self.driver, 30).until(
            lambda d: d.execute_script("return document.readyState") == "complete")

    def main_text(self):
        return self.driver.find_element(By.TAG_NAME, "main").text

    def token(self):
        return self.driver.find_element(By.NAME, "csrf_token").get_attribute("value")

    def notices(self):
        return [e.text for e in self.driver.find_elements(By.CSS_SELECTOR, ".notice")]

    def cookie(self):
        c = self.driver.get_cookie("zelconsole")
        return f"zelconsole={c['value']}" if c else None

    def shoot(self, name):
        """Screenshots for the README, when ZEL_CONSOLE_SCREENSHOTS names a folder."""
        folder = os.environ.get("ZEL_CONSOLE_SCREENSHOTS")
        if folder:
            self.driver.save_screenshot(str(Path(folder) / f"console-{name}.png"))


@pytest.fixture(scope="module")
def browser(console):
    b = Browser(console)
    yield b
    b.driver.quit()


def zelctl(directory, *args, check=True):
    """zelctl as the directory's administrator; the password from its file."""
    done = subprocess.run([zelctl_path(), "-H", directory.uri, "-D", directory.admin, "-y",
                           str(directory.password_file), *args], capture_output=True, text=True)
    if check and done.returncode != 0:
        raise RuntimeError(f"zelctl {' '.join(args)}: {done.stderr}")
    return done


def secret(directory, name, text):
    """A password file in the directory's folder, for its owner only."""
    path = directory.work / name
    path.write_text(text + "\n")
    path.chmod(0o600)
    return str(path)


def create_database(directory):
    """A Zel database with the default types and its access groups."""
    zelctl(directory, "db", "create", directory.suffix, "--admin-password-file",
           secret(directory, "zel-admin.pw", "zel-admin-secret"), "--default-types")
