"""The console in a real browser against a real directory, as an
administrator meets it."""
import json
import re

import pytest
from selenium.webdriver.common.by import By


from conftest import Console, create_database, zelctl
from zelmgmt.console.people import Lookup, escape_dn_value, person_dn
from zelmgmt.console.sessions import SessionStore

SCRIPT = "<script>document.title='owned'</script>"
RECORD_PASSWORD = "wiki-pw-9f3"


@pytest.fixture(scope="module")
def console(module_directory):
    d = module_directory
    create_database(d)
    # A type of the Zel database's own, and a service of it, added with zelctl.
    zelctl(d, "--api-version", "1", "service-type", "add", "Web Application", "--id", "resourceName")
    zelctl(d, "--api-version", "1", "service", "add", "app", "--type", "Web Application",
           "--description", "The app", "--id", "resourceName=app")
    c = Console(d, env={"ZEL_AUDIT": str(d.work / "audit.jsonl")})
    yield c
    c.stop()


def test_a_day_at_the_console(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    assert "Security domain\nDefault" in browser.main_text()
    assert browser.driver.find_element(By.CSS_SELECTOR, "nav [aria-current=page]").text == "Overview"
    browser.shoot("overview")

    browser.open("/services")
    browser.fill("/services/add", name="wiki", type="Web Resource", description=SCRIPT)
    # The description is shown as text, never run as markup.
    assert SCRIPT in browser.main_text() and browser.driver.title != "owned"
    assert "&lt;script&gt;" in browser.driver.page_source
    browser.fill("/services/add", name="office", type="Resource Group", description="Office")
    # A type added outside the console is offered, and a save that changes
    # only the description keeps it.
    browser.follow("Edit app")
    browser.fill("/services/edit", description="The new app")
    assert "Service app changed." in browser.notices()
    assert d.session().get_target_service("app").type == "Web Application"

    browser.open("/groups")
    browser.fill("/groups/add", name="office", description="Office tools")
    browser.follow("Edit office")
    browser.fill("/groups/members", member="wiki")
    browser.fill("/groups/edit", description="Office software")
    assert "wiki" in browser.main_text() and "Resource group office changed." in browser.notices()

    browser.open("/users")
    browser.fill("/users/add", name="ann", type="User", person_dn=f"cn=Ann,{d.suffix}")
    assert "User ann added." in browser.notices()
    # A second profile, by name or for the same person, is refused and the page says whose.
    browser.fill("/users/add", name="ann", type="User")
    assert any("exists already" in n for n in browser.notices())
    browser.fill("/users/add", name="helpdesk", type="User", person_dn=f"cn=Ann,{d.suffix}")
    assert any("already has a profile: user ann" in n for n in browser.notices())
    assert "helpdesk" not in browser.main_text()

    browser.follow("Records of ann")
    assert "No records yet." in browser.main_text() and not browser.notices()
    browser.fill("/records/add", target="office (group)", account="ann.office", password=RECORD_PASSWORD,
                 description="shared")
    assert "Record G:office added." in browser.notices()
    assert RECORD_PASSWORD not in browser.driver.page_source

    browser.open("/credential")
    browser.fill("/credential", user="ann", resource="wiki")
    assert browser.driver.find_element(By.ID, "account").text == "ann.office"
    assert RECORD_PASSWORD not in browser.driver.page_source
    browser.shoot("credential")
    browser.fill("/credential", user="ann", resource="mail")
    assert any("There is no such record." in n and "status 24" in n for n in browser.notices())

    # Each record has its own edit page; a cleared field is cleared, or the page says it stays.
    browser.open("/records?user=ann")
    browser.follow("Edit G:office")
    browser.fill("/records/edit", account="", description="")
    record = d.session().get_target_record("ann", "G:office")
    assert not record.account and record.password == RECORD_PASSWORD
    assert record.description is None or any("keeps no empty description" in n for n in browser.notices())
    browser.follow("Reveal the password of G:office")
    assert browser.driver.find_element(By.ID, "revealed").text == RECORD_PASSWORD
    browser.open("/records?user=ann")
    assert RECORD_PASSWORD not in browser.driver.page_source

    # Removal asks first, says what goes with the user, and a GET removes nothing.
    browser.open("/users")
    browser.follow("Remove ann")
    assert "Its 1 record goes with it: G:office." in browser.main_text()
    browser.shoot("confirm")
    browser.click(browser.driver.find_element(By.LINK_TEXT, "Cancel, keep it"))
    assert "ann" in browser.main_text()
    browser.follow("Remove ann")
    browser.send(browser.driver.find_element(By.CSS_SELECTOR, "form.buttons"))
    assert "User ann removed." in browser.notices()
    # Added again: what was typed is written, or the page says it was not and offers the edit page.
    browser.fill("/users/add", name="ann", type="User", person_dn=f"cn=Ann,{d.suffix}", description="back again")
    stored = d.session().get_user("ann")
    said = " ".join(browser.notices())
    assert stored.description == "back again" and "User ann added" in said or \
        "not written" in said and browser.driver.find_elements(By.LINK_TEXT, "Open its edit page")

    # The trail names who did it; the reveal's log line says who and from where.
    browser.open("/audit?user=ann&action=Remove")
    assert "Intact" in browser.driver.find_element(By.ID, "verdict").text
    assert "removeZelUser ann done" in browser.main_text() and d.admin in browser.main_text()
    log = console.log()
    assert re.search(r"revealed to 'cn=Manager,o=example' from 127\.0\.0\.1", log)

    browser.fill("/signout")
    browser.open("/")
    assert browser.driver.current_url.endswith("/signin")
    log = console.log()
    assert d.admin_password not in log and RECORD_PASSWORD not in log


def test_export_then_import_with_a_second_confirmation(console, browser, tmp_path):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    browser.open("/transfer")
    status, body = console.post("/export", {"csrf_token": browser.token(), "password": d.admin_password,
                                            "passwords": "omit"}, browser.cookie())
    document = json.loads(body)
    assert status == 200 and any(s["name"] == "app" for s in document["services"])
    document["services"].append({"name": "imported", "type": "Web Resource", "description": "from a file",
                                 "identifiers": []})
    upload = tmp_path / "zel.json"
    upload.write_text(json.dumps(document))
    browser.fill("/import", document=str(upload), password=d.admin_password)
    assert "Nothing has been written yet" in browser.main_text() and "imported" in browser.main_text()
    with d.session() as zel:
        assert "imported" not in [s.name for s in zel.get_all_target_services()]
        browser.fill("/import/apply", password=d.admin_password)
        assert "The import was written." in browser.main_text()
        assert "imported" in [s.name for s in zel.get_all_target_services()]
    assert d.admin_password not in console.log()


def test_names_are_checked_and_shortened(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    browser.open("/services")
    for name, said in (("cut\x00here", "holds a NUL character"), ("x" * 5000, "longer than 256 characters"),
                       ("tab\there", "control character")):
        status, body = console.post("/services/add", {"csrf_token": browser.token(), "name": name,
                                                      "type": "Web Resource"}, browser.cookie())
        assert status == 200 and said in body
    with d.session() as zel:
        names = [s.name for s in zel.get_all_target_services()]
    assert not any(n.startswith(("cut", "xxx", "tab")) for n in names)
    # A long name that is accepted is shown whole in its row, shortened in notices.
    long_name = "n" * 200
    browser.fill("/services/add", name=long_name, type="Web Resource")
    assert all(len(n) < 120 for n in browser.notices()) and any("…" in n for n in browser.notices())


@pytest.mark.parametrize("path, data, status, said", [
    ("/no-such-page", None, 404, "Page not found"),
    ("/services/add", None, 405, "Not allowed"),
    ("/signin", b"x" * (17 * 1024 * 1024), 413, "Too large"),
])
def test_error_pages_are_the_consoles_own(console, path, data, status, said):
    got, body = console.fetch(path, data)
    assert got == status and said in body and "console.css" in body


def test_forms_without_their_token_are_refused(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    cookie = browser.cookie()
    for fields in ({"name": "evil", "type": "Web Resource"},
                   {"name": "evil", "type": "Web Resource", "csrf_token": "guessed"}):
        assert console.post("/services/add", fields, cookie)[0] == 403
        assert console.post("/services/add", fields)[0] == 403
    browser.open("/services?q=evil")
    assert "No service matches." in browser.main_text()


@pytest.mark.parametrize("login, password, signed_in, shown", [
    ("cn=Manager,o=example", "not-this-one", False, "Sign-in failed"),
    ("nobody", "whatever", False, "Sign-in failed"),
    ("ann*", "ann-secret", False, "Sign-in failed"),  # a name is never a filter
    ("ann", "ann-secret", True, "My sign-ons"),  # a person with a profile is a user
])
def test_sign_in(console, browser, login, password, signed_in, shown):
    browser.sign_in(login, password)
    assert shown in browser.main_text()
    assert password not in browser.driver.page_source and password not in browser.driver.current_url
    browser.open("/credential")
    assert browser.driver.current_url.endswith("/signin") != signed_in


def test_a_dn_template_takes_the_name_as_one_value():
    template = Lookup(template="uid={name},ou=People,o=example")
    assert person_dn("ldap://127.0.0.1:1", "jo", lookup=template) == "uid=jo,ou=People,o=example"
    assert person_dn("ldap://127.0.0.1:1", "x,cn=admin", lookup=template) == "uid=x\\,cn\\=admin,ou=People,o=example"
    assert escape_dn_value(" #a+b ") == "\\ #a\\+b\\ "


def test_idle_sessions_end_and_close_their_directory_session(console):
    d = console.directory
    now = [0.0]
    store = SessionStore(idle_seconds=15 * 60, clock=lambda: now[0])
    zel = d.session()
    s = store.start(zel, d.admin)
    now[0] += 15 * 60 - 1
    assert store.get(s.key) is s  # use restarts the idle clock
    now[0] += 15 * 60 + 1
    assert store.get(s.key) is None and "closed" in repr(zel)
