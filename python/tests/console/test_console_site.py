"""The console as a site runs it: the shipped access rules, sign-in by user
name through a look-up identity, a role for each person, 1,500 services."""
import pytest
from selenium.webdriver.common.by import By

import zelmgmt

from conftest import Console, create_database, secret, zelctl

JO_PASSWORD = "jo-secret-4"
LOOKUP = "cn=console-lookup,o=example"


@pytest.fixture(scope="module")
def console(ruled_directory):
    d = ruled_directory
    create_database(d)
    added = d.ldap("ldapadd", input=f"dn: {LOOKUP}\nobjectClass: person\ncn: console-lookup\nsn: lookup\n"
                                    "userPassword: lookup-secret\n")
    assert added.returncode == 0, added.stderr
    zelctl(d, "person", "add", d.suffix, "--cn", "Jo", "--sn", "Example", "--uid", "jo",
           "--password-file", secret(d, "jo.pw", JO_PASSWORD))
    zelctl(d, "person", "add", d.suffix, "--cn", "Agent", "--sn", "Agent", "--uid", "agent",
           "--password-file", secret(d, "agent.pw", "agent-secret"))
    zelctl(d, "service", "add", "intranet", "--type", "Web Resource")
    zelctl(d, "user", "add", "jo", "--person", f"cn=Jo,{d.suffix}")
    zelctl(d, "--api-version", "1", "user", "add", "agent", "--type", "Middle Tier Server",
           "--person", f"cn=Agent,{d.suffix}")
    zelctl(d, "record", "add", "jo", "T:intranet", "--service", "intranet", "--account", "jo.direct",
           "--password-file", secret(d, "r.pw", "old-intranet-pw"))
    with d.session() as zel:
        for i in range(1500):
            zel.add_target_service(zelmgmt.TargetService(f"svc-{i:04d}", "Web Resource", f"Service {i}"))
    c = Console(d, "--lookup-dn", LOOKUP, "--lookup-password-file", secret(d, "lookup.pw", "lookup-secret"))
    yield c
    c.stop()


def menu(browser):
    return [a.text for a in browser.driver.find_elements(By.CSS_SELECTOR, "nav[aria-label=Console] a")]


@pytest.mark.parametrize("login, password, first_page, entries", [
    ("jo", JO_PASSWORD, "My sign-ons", ["My sign-ons"]),
    ("agent", "agent-secret", "Overview", ["Overview", "Services", "Resource groups", "Users",
                                           "Credential tester"]),
    ("cn=Manager,o=example", "py-secret", "Overview", ["Overview", "Services", "Resource groups", "Users",
                                                       "Credential tester", "Audit trail", "Export and import"]),
])
def test_each_role_gets_its_own_menus(console, browser, login, password, first_page, entries):
    browser.sign_in(login, password)
    assert browser.driver.find_element(By.TAG_NAME, "h1").text == first_page
    assert menu(browser) == entries
    if login == "agent":
        browser.open("/services")
        assert "Add a service" not in browser.main_text() and not browser.driver.find_elements(
            By.CSS_SELECTOR, "[aria-label^=Remove]")
        browser.open("/transfer")
        assert "Not permitted" in browser.main_text()


def test_a_user_signs_in_by_name_and_sets_their_own_password(console, browser):
    d = console.directory
    browser.sign_in("jo", JO_PASSWORD)
    assert "T:intranet" in browser.main_text() and "jo.direct" in browser.main_text()
    assert browser.driver.find_element(By.CSS_SELECTOR, "nav [aria-current=page]").text == "My sign-ons"
    browser.shoot("my-sign-ons")
    browser.follow("Edit T:intranet")
    browser.fill("/records/edit", password="new-intranet-pw")
    assert "Record T:intranet updated." in browser.notices()
    assert "new-intranet-pw" not in browser.driver.page_source
    with d.session() as zel:
        assert zel.get_target_record("jo", "T:intranet").password == "new-intranet-pw"
    # Nobody else's pages, records or passwords: a refusal says "not permitted".
    for path in ("/services", "/users", "/records?user=ann", "/credential"):
        browser.open(path)
        assert "Not permitted" in browser.main_text()
    assert console.post("/records/reveal", {"user": "jo", "id": "T:intranet"}, browser.cookie())[0] == 403
    assert "new-intranet-pw" not in console.log() and JO_PASSWORD not in console.log()


def test_a_helpdesk_finds_one_service_among_1500(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    browser.open("/services")
    rows = browser.driver.find_elements(By.CSS_SELECTOR, "tbody tr")
    assert len(rows) == 50 and "Page 1 of 31" in browser.main_text()
    browser.fill("/services", q="svc-0742")
    assert [r.text.split()[0] for r in browser.driver.find_elements(By.CSS_SELECTOR, "tbody tr")] == ["svc-0742"]
    browser.shoot("services-search")
    # A search is text, never a filter; sorting turns the order round.
    browser.fill("/services", q="*)(cn=*")
    assert "No service matches." in browser.main_text()
    browser.open("/services?sort=name&dir=desc")
    assert browser.driver.find_element(By.CSS_SELECTOR, "tbody tr td").text == "svc-1499"
    assert browser.driver.find_element(By.CSS_SELECTOR, "th[aria-sort=descending]").text.startswith("Name")


def contrast(rgb_a, rgb_b):
    def luminance(rgb):
        channels = [int(v) / 255 for v in rgb.replace("rgba(", "").replace("rgb(", "").rstrip(")").split(",")[:3]]
        linear = [c / 12.92 if c <= 0.03928 else ((c + 0.055) / 1.055) ** 2.4 for c in channels]
        return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]
    a, b = sorted((luminance(rgb_a), luminance(rgb_b)), reverse=True)
    return (a + 0.05) / (b + 0.05)


def test_pages_can_be_used_without_seeing_them(console, browser):
    d = console.directory
    browser.sign_in(d.admin, d.admin_password)
    browser.open("/services")
    # Repeated buttons carry their object's name, every one different.
    names = [e.get_attribute("aria-label") for e in browser.driver.find_elements(By.CSS_SELECTOR, "tbody .actions a")]
    assert "Edit intranet" in names and "Remove intranet" in names and len(set(names)) == len(names) == 100
    # A skip link first, to the content; the current page is marked.
    first = browser.driver.find_element(By.CSS_SELECTOR, "body a")
    assert first.get_attribute("class") == "skip" and first.get_attribute("href").endswith("#main")
    assert browser.driver.find_element(By.CSS_SELECTOR, "[aria-current=page]").text == "Services"
    # Input borders stand out from the page behind them (3:1).
    for selector in ("input[type=search]", "#name", "#type"):
        field = browser.driver.find_element(By.CSS_SELECTOR, selector)
        border = field.value_of_css_property("border-top-color")
        behind = browser.driver.execute_script(
            "let e = arguments[0].parentElement;"
            "while (e && getComputedStyle(e).backgroundColor === 'rgba(0, 0, 0, 0)') e = e.parentElement;"
            "return e ? getComputedStyle(e).backgroundColor : 'rgb(255, 255, 255)';", field)
        assert contrast(border, behind) >= 3, (selector, border, behind)
