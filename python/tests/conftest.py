"""A private slapd for the binding's tests: a temp folder, a free loopback
port, the Zel schema, seeded LDIF."""
import contextlib
import os
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

import zelmgmt

SOURCE = Path(os.environ.get("ZEL_SOURCE_DIR", Path(__file__).resolve().parents[2]))
SUFFIX = "o=example"
ADMIN = f"cn=Manager,{SUFFIX}"
ADMIN_PASSWORD = "py-secret"
ANN_PASSWORD = "ann-secret"

DOMAIN = f"secAuthority=Default,{SUFFIX}"
SEED = "\n".join([
    f"dn: {SUFFIX}\nobjectClass: organization\no: example\n",
    f"dn: {DOMAIN}\nobjectClass: secAuthorityInfo\nsecAuthority: Default\nversion: 6\n",
    *(f"dn: cn={cn},{DOMAIN}\nobjectClass: container\ncn: {cn}\n" for cn in ("Users", "Resources", "ResourceGroups")),
    f"dn: cn=Ann,{SUFFIX}\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: Ann\nsn: Lee\nuid: ann\n"
    f"userPassword: {ANN_PASSWORD}\n"])


class Directory:
    """A slapd from scripts/slapd.sh, the starter the demo and the bench use too."""
    suffix, admin, admin_password, ann_password = SUFFIX, ADMIN, ADMIN_PASSWORD, ANN_PASSWORD

    def __init__(self, work: Path, access_rules: bool = False):
        self.work = work
        self.password_file = work / "admin.pw"
        self.password_file.write_text(ADMIN_PASSWORD)
        self.password_file.chmod(0o600)
        env = dict(os.environ, ZEL_SLAPD_NOSYNC="1", ZEL_ACCESS_RULES="1" if access_rules else "")
        started = subprocess.run(["bash", str(SOURCE / "scripts/slapd.sh"), "start", str(work), SUFFIX, ADMIN],
                                 capture_output=True, text=True, env=env)
        if started.returncode != 0:
            raise RuntimeError("slapd did not start: " + started.stderr)
        port, self.pid = (int(n) for n in started.stdout.split())
        self.port, self.uri = port, f"ldap://127.0.0.1:{port}"
        added = self.ldap("ldapadd", input=SEED)
        if added.returncode != 0:
            raise RuntimeError("seeding failed: " + added.stderr)

    def session(self, version=2):
        """A binding session as the administrator, the password from its file."""
        return zelmgmt.Session(self.uri, ADMIN, password_file=str(self.password_file), version=version)

    def ldap(self, tool, *args, input=None):
        return subprocess.run([tool, "-x", "-H", self.uri, "-D", ADMIN, "-y", str(self.password_file), *args],
                              input=input, capture_output=True, text=True, env={**os.environ, "LDAPNOINIT": "1"})

    def stop(self):
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.pid, signal.SIGKILL)
        # Not our child: wait until it is gone so its folder can go.
        while os.path.exists(f"/proc/{self.pid}"):
            time.sleep(0.02)


@contextlib.contextmanager
def private_directory(access_rules: bool = False):
    work = Path(tempfile.mkdtemp(prefix="zelpy-"))
    d = Directory(work, access_rules)
    try:
        yield d
    finally:
        d.stop()
        shutil.rmtree(work, ignore_errors=True)


@pytest.fixture
def directory():
    with private_directory() as d:
        yield d


@pytest.fixture(scope="module")
def module_directory():
    """One directory for a module whose tests build on each other's data."""
    with private_directory() as d:
        yield d


@pytest.fixture(scope="module")
def ruled_directory():
    """A module's directory under the shipped access rules."""
    with private_directory(access_rules=True) as d:
        yield d
