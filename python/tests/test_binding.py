"""The binding against a real slapd: objects in, objects out, errors raised."""
import pytest

import zelmgmt
from conftest import ADMIN, SOURCE, SUFFIX


def refusal(call, *args):
    """The error a call raises (it must raise one)."""
    with pytest.raises(zelmgmt.Error) as e:
        call(*args)
    return e.value


@pytest.fixture
def session(directory):
    with directory.session() as s:
        yield s


def test_bad_bind_raises_with_status_and_text(directory):
    e = refusal(lambda: zelmgmt.Session(directory.uri, ADMIN, password="wrong"))
    assert e.status == 4 and e.text.startswith("ZEL_RC_AUTHENTICATION_FAILED")
    assert "wrong" not in str(e)


def test_session_info(session, directory):
    info = session.info()
    assert (info.suffixes, info.security_domain, info.api_version) == ([SUFFIX], "Default", 2)
    assert info.server == directory.uri


def test_a_server_list_and_time_outs(directory):
    zelmgmt.set_timeouts(request=5, network=2)
    try:
        # Port 1 refuses: the open moves on to the next server.
        with zelmgmt.Session(f"ldap://127.0.0.1:1 {directory.uri}", ADMIN,
                             password_file=str(directory.password_file)) as s:
            assert s.info().server == directory.uri
        for refused in (lambda: zelmgmt.set_timeouts(request=-2), lambda: zelmgmt.set_hold_down(-2)):
            assert refusal(refused).status == 1005
        zelmgmt.set_hold_down(0)
        assert "may or may not" in zelmgmt.strerror(zelmgmt.TIMEOUT)
    finally:
        zelmgmt.set_timeouts()
        zelmgmt.set_hold_down()


def test_service_types_live_in_the_zel_database(directory):
    with directory.session(version=1) as s:
        assert refusal(s.get_all_target_service_types).status == 29  # no database yet
        s.create_database(SUFFIX)
        try:
            s.add_target_service_type(zelmgmt.ServiceType("Kerberos", ["realm", "user"]))
            assert s.get_all_target_service_types() == [zelmgmt.ServiceType("Kerberos", ["realm", "user"])]
        finally:
            s.remove_database()


def test_the_sign_on_question(session):
    session.add_user(zelmgmt.User("ann", "User", person_dn=f"cn=Ann,{SUFFIX}"))
    assert session.verify_user(f"cn=Ann,{SUFFIX}") is not None
    assert session.get_user("ann").enabled
    assert [u.name for u in session.get_all_users()] == ["ann"]
    session.add_target_service(zelmgmt.TargetService("payroll", "Web Resource", "Payroll portal"))
    assert session.get_target_service("payroll") == zelmgmt.TargetService(
        "payroll", "Web Resource", "Payroll portal", [])
    for name in ("wiki", "mail", "gone"):
        session.add_target_service(zelmgmt.TargetService(name, "Web Resource"))
    session.remove_target_service("gone")
    assert refusal(session.get_target_service, "gone").status == 14
    # A group record names the group as a service of the "Resource Group" kind.
    session.add_target_service(zelmgmt.TargetService("office", "Resource Group"))
    session.add_domain(zelmgmt.Domain("office", locations=[("resourceName", "wiki"), ("resourceName", "mail")]))
    assert session.get_domain("office").members == ["wiki", "mail"]
    session.add_target_record("ann", zelmgmt.TargetRecord("T:payroll", "payroll", account="ann.lee",
                                                          password="direct-pw"))
    session.add_target_record("ann", zelmgmt.TargetRecord("G:office", "office", account="ann.office",
                                                          password="group-pw"))
    direct = session.get_credential("ann", "payroll")
    assert (direct.account, direct.password) == ("ann.lee", "direct-pw")
    assert session.get_credential("ann", "wiki").account == "ann.office"
    assert "direct-pw" not in repr(direct) and "direct-pw" not in repr(session.get_target_record("ann", "T:payroll"))
    assert refusal(session.get_credential, "ann", "*").status == 24
    assert sorted(r.id for r in session.get_all_target_records("ann")) == ["G:office", "T:payroll"]
    assert sorted(t.name for t in session.get_all_target_services()) == ["mail", "office", "payroll", "wiki"]
    seen = []
    session.set_progress(lambda done, total: seen.append((done, total)))
    assert session.rekey_target_records("ann") == (0, [])  # no key file: nothing to rewrite to
    assert seen == [(0, -1), (0, 2), (1, 2), (2, 2)]
    session.set_progress(None)
    # The explanation names the group record that answers, and no password.
    session.set_cache_ttl(60)
    why = session.explain_credential("ann", "wiki")
    assert why.status == 0 and why.steps[why.answer].kind == "group" and why.steps[why.answer].name == "office"
    assert "group-pw" not in repr(why)
    assert session.explain_credential("ann", "*").answer is None


def test_the_readme_example_runs(directory, capsys):
    readme = (SOURCE / "README.md").read_text()
    example = readme.split("```python\n", 1)[1].split("```", 1)[0]
    example = example.replace("ldap://127.0.0.1:3890", directory.uri).replace(
        '"admin.pw"', repr(str(directory.password_file)))
    exec(compile(example, "README.md", "exec"), {})
    out = capsys.readouterr().out
    assert "Credential(account='ann.lee')" in out and "wiki-secret" not in out
    assert "24 ZEL_RC_TR_NOT_FOUND" in out


def test_one_profile_per_person_and_a_released_user_taken_back(session):
    ann = f"cn=Ann,{SUFFIX}"
    session.add_user(zelmgmt.User("ann", "User", description="old", person_dn=ann))
    e = refusal(session.add_user, zelmgmt.User("helpdesk", "User", person_dn=ann))
    assert (e.status, e.detail) == (5, f"{ann} already has a profile: Zel user ann")
    assert str(e).endswith(f"(status 5): {ann} already has a profile: Zel user ann")
    # The domain keeps a removed user's entry; adding the name again writes what is given.
    session.remove_user("ann")
    session.add_user(zelmgmt.User("ann", "User", description="new", enabled=False, person_dn=ann))
    back = session.get_user("ann")
    assert (back.description, back.enabled, back.person_dn) == ("new", False, ann)
    # A refused write carries the server's own words.
    e = refusal(session.add_target_record, "nobody",
                zelmgmt.TargetRecord("T:x", "x", account="a", password="never-shown"))
    assert "never-shown" not in str(e) and "never-shown" not in e.detail


def test_a_key_file_and_a_keyed_trail(tmp_path, monkeypatch):
    key = tmp_path / "trail.key"
    key_id = zelmgmt.generate_key_file(str(key))
    assert key_id and oct(key.stat().st_mode & 0o777) == "0o600"
    assert key_id.encode() in key.read_bytes()
    assert refusal(zelmgmt.generate_key_file, str(key)).status == 1000, "an existing key file is never overwritten"
    monkeypatch.setenv("ZEL_AUDIT_KEY", str(key))
    trail = tmp_path / "trail"
    trail.write_text("")
    check = zelmgmt.verify_audit_trail(str(trail))
    assert check.intact and check.lines == 0 and check.head == "0:"
    assert not zelmgmt.verify_audit_trail(str(trail), "3:" + "0" * 64).intact
