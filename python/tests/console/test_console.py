"""The console in a real browser against a real directory."""
import pytest
from selenium.webdriver.common.by import By

import zelmgmt

from zelmgmt.console.sessions import SessionStore

SCRIPT = "<script>document.title='owned'</script>"
RECORD_PASSWORD = "wiki-pw-9f3"


def text(browser):
    return browser.driver.find_element(By.TAG_NAME, "main").text


def test_a_day_at_the_console(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    assert "Security domain\nDefault" in text(browser)
    browser.shoot("overview")

    browser.open("/services")
    browser.fill("/services/add", name="wiki", type="Web Resource", description=SCRIPT)
    # The description is shown as text, never run as markup.
    assert SCRIPT in text(browser) and browser.driver.title != "owned"
    assert "&lt;script&gt;" in browser.driver.page_source
    browser.fill("/services/add", name="office", type="Resource Group", description="Office")
    browser.open("/services/edit?name=wiki")
    browser.fill("/services/edit", description="Team wiki")
    assert "Team wiki" in text(browser) and SCRIPT not in text(browser)

    browser.open("/groups")
    browser.fill("/groups/add", name="office", description="Office tools")
    browser.open("/groups/view?name=office")
    browser.fill("/groups/members", member="wiki")
    assert "wiki joined office." in browser.notices()

    browser.open("/users")
    browser.fill("/users/add", name="ann", type="User", person_dn=f"cn=Ann,{d.suffix}")

    browser.open("/records?user=ann")
    browser.fill("/records/add", kind="a resource group", service="office", account="ann.office",
                 password=RECORD_PASSWORD)
    assert "Record G:office added." in browser.notices()
    fields = browser.driver.find_elements(By.CSS_SELECTOR, "input[type=password]")
    assert fields and all(f.get_attribute("value") == "" for f in fields)
    assert RECORD_PASSWORD not in browser.driver.page_source

    browser.open("/credential")
    browser.fill("/credential", user="ann", resource="wiki")
    assert browser.driver.find_element(By.ID, "account").text == "ann.office"
    assert "group record" in browser.driver.find_element(By.ID, "reason").text
    assert RECORD_PASSWORD not in browser.driver.page_source
    browser.shoot("credential")
    browser.fill("/credential", user="ann", resource="mail")
    assert any("ZEL_RC_TR_NOT_FOUND" in n for n in browser.notices())

    # An update with the password left empty keeps the stored one.
    browser.open("/records?user=ann")
    browser.fill("/records/update", account="ann.o2")
    assert "Record G:office updated." in browser.notices()
    # Only the explicit action shows the password, and only on its own answer.
    browser.fill("/records/reveal")
    assert browser.driver.find_element(By.ID, "revealed").text == RECORD_PASSWORD
    browser.open("/records?user=ann")
    assert RECORD_PASSWORD not in browser.driver.page_source

    browser.open("/users")
    browser.fill("/users/state")
    assert "User ann disabled." in browser.notices() and "disabled" in text(browser)

    browser.fill("/signout")
    browser.open("/")
    assert browser.driver.current_url.endswith("/signin")
    log = console.log()
    assert "signed in" in log and d.admin_password not in log and RECORD_PASSWORD not in log


def test_forms_without_their_token_are_refused(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    cookie = browser.cookie()
    for fields in ({"name": "evil", "type": "Web Resource"},
                   {"name": "evil", "type": "Web Resource", "csrf_token": "guessed"}):
        assert console.post("/services/add", fields, cookie)[0] == 403
        assert console.post("/services/add", fields)[0] == 403
    browser.open("/services")
    assert "evil" not in text(browser)


@pytest.mark.parametrize("login, password, signed_in, shown", [
    ("cn=Manager,o=example", "wrong", False, "ZEL_RC_AUTHENTICATION_FAILED"),
    ("nobody", "whatever", False, "ZEL_RC_ENTRY_NOT_FOUND"),
    ("ann*", "ann-secret", False, "ZEL_RC_ENTRY_NOT_FOUND"),  # a name is never a filter
    ("ann", "ann-secret", True, "Overview"),
])
def test_sign_in(console, browser, login, password, signed_in, shown):
    browser.sign_in(login, password)
    assert shown in text(browser)
    assert password not in browser.driver.page_source and password not in browser.driver.current_url
    browser.open("/services")
    assert browser.driver.current_url.endswith("/signin") != signed_in


def test_idle_sessions_end_and_close_their_directory_session(console):
    d = console.directory
    now = [0.0]
    store = SessionStore(idle_seconds=15 * 60, clock=lambda: now[0])
    zel = zelmgmt.Session(d.uri, d.admin, password=d.admin_password)
    s = store.start(zel, d.admin)
    now[0] += 15 * 60 - 1
    assert store.get(s.key) is s  # use restarts the idle clock
    now[0] += 15 * 60 + 1
    assert store.get(s.key) is None and "closed" in repr(zel)
