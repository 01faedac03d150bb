"""A private slapd for the binding's tests, started the way the C tests start
theirs: a temp folder, a free loopback port, the Zel schema, seeded LDIF."""
import contextlib
import os
import shutil
import socket
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

SOURCE = Path(os.environ.get("ZEL_SOURCE_DIR", Path(__file__).resolve().parents[2]))
SUFFIX = "o=example"
ADMIN = f"cn=Manager,{SUFFIX}"
ADMIN_PASSWORD = "py-secret"
ANN_PASSWORD = "ann-secret"

SEED = f"""dn: {SUFFIX}
objectClass: organization
o: example

dn: secAuthority=Default,{SUFFIX}
objectClass: secAuthorityInfo
secAuthority: Default
version: 6

dn: cn=Users,secAuthority=Default,{SUFFIX}
objectClass: container
cn: Users

dn: cn=Resources,secAuthority=Default,{SUFFIX}
objectClass: container
cn: Resources

dn: cn=ResourceGroups,secAuthority=Default,{SUFFIX}
objectClass: container
cn: ResourceGroups

dn: cn=Ann,{SUFFIX}
objectClass: inetOrgPerson
objectClass: ePerson
cn: Ann
sn: Lee
uid: ann
userPassword: {ANN_PASSWORD}
"""


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Directory:
    suffix, admin, admin_password, ann_password = SUFFIX, ADMIN, ADMIN_PASSWORD, ANN_PASSWORD

    def __init__(self, work: Path, access_rules: bool = False):
        self.work = work
        self.port = _free_port()
        self.uri = f"ldap://127.0.0.1:{self.port}"
        (work / "db").mkdir()
        (work / "slapd.conf").write_text(
            "include /etc/ldap/schema/core.schema\n"
            "include /etc/ldap/schema/cosine.schema\n"
            "include /etc/ldap/schema/inetorgperson.schema\n"
            f"include {SOURCE}/schema/zel.schema\n"
            f"pidfile {work}/slapd.pid\n"
            "modulepath /usr/lib/ldap\nmoduleload back_mdb\n"
            f'database mdb\nsuffix "{SUFFIX}"\nrootdn "{ADMIN}"\nrootpw {ADMIN_PASSWORD}\n'
            f"directory {work}/db\nmaxsize 33554432\ndbnosync\n"
            f"include {SOURCE}/schema/zel-indexes.conf\n")
        if access_rules:
            # The shipped rules, then a site's usual ones (as scripts/private-directory.sh sets them).
            rules = (SOURCE / "schema/zel-access.conf").read_text().replace("@SUFFIX@", SUFFIX)
            (work / "zel-access.conf").write_text(rules)
            with open(work / "slapd.conf", "a") as conf:
                conf.write(f"include {work}/zel-access.conf\n"
                           "access to attrs=userPassword by self write by anonymous auth by * none\n"
                           "access to * by users read by * none\n")
        self.proc = subprocess.Popen(["slapd", "-f", str(work / "slapd.conf"), "-h", self.uri + "/", "-d", "0"],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while self.ldap("ldapsearch", "-b", "", "-s", "base").returncode != 0:
            if self.proc.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("slapd did not start")
            time.sleep(0.05)
        added = self.ldap("ldapadd", input=SEED)
        if added.returncode != 0:
            raise RuntimeError("seeding failed: " + added.stderr)
        self.password_file = work / "admin.pw"
        self.password_file.write_text(ADMIN_PASSWORD + "\n")
        self.password_file.chmod(0o600)

    def ldap(self, tool, *args, input=None):
        return subprocess.run([tool, "-x", "-H", self.uri, "-D", ADMIN, "-w", ADMIN_PASSWORD, *args],
                              input=input, capture_output=True, text=True, env={**os.environ, "LDAPNOINIT": "1"})

    def stop(self):
        self.proc.kill()
        self.proc.wait()


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
