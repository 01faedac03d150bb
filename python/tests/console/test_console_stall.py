"""A directory that stops answering: pages say so within the time-outs, and
the sign-in page and static files are answered meanwhile."""
import http.cookiejar
import os
import re
import signal
import threading
import urllib.request

import pytest

from conftest import Console


@pytest.fixture(scope="module")
def console(module_directory):
    # Six threads: two may wait on the directory, four never do.
    c = Console(module_directory, "--timeout", "2", "--network-timeout", "1", "--threads", "6")
    yield c
    c.stop()


class Visitor:
    """One person's browser, without the browser: a cookie jar and forms."""

    def __init__(self, console):
        self.console = console
        self.opener = urllib.request.build_opener(urllib.request.HTTPCookieProcessor(http.cookiejar.CookieJar()))

    def get(self, path):
        return self.console.fetch(path, opener=self.opener)

    def sign_in(self, dn, password):
        token = re.search(r'name="csrf_token" value="([^"]+)"', self.get("/signin")[1]).group(1)
        fields = {"csrf_token": token, "login": dn, "password": password}
        status, body = self.console.post("/signin", fields, opener=self.opener)
        assert status == 200 and "Overview" in body


def test_a_stalled_directory_gets_its_own_page_and_holds_up_nobody_else(console):
    d = console.directory
    people = [Visitor(console) for _ in range(3)]
    for p in people:
        p.sign_in(d.admin, d.admin_password)
    answers = {}

    def ask(i, path):
        answers[i] = people[i].get(path)
    os.kill(d.pid, signal.SIGSTOP)
    try:
        waiting = [threading.Thread(target=ask, args=(i, path))
                   for i, path in enumerate(("/services", "/users", "/groups"))]
        # The first person's request takes its place in front of the directory
        # before the others come, so that it is surely the one still waiting.
        waiting[0].start()
        threading.Event().wait(0.3)
        for t in waiting[1:]:
            t.start()
        threading.Event().wait(0.3)
        # Answered while the directory holds the others.
        stranger = Visitor(console)
        assert stranger.get("/signin")[0] == 200 and stranger.get("/static/console.css")[0] == 200
        status, body = people[0].get("/credential")
        assert status == 503 and "Your previous request is still waiting" in body
        assert any(t.is_alive() for t in waiting)
        for t in waiting:
            t.join(60)
    finally:
        os.kill(d.pid, signal.SIGCONT)
    # Two wait on the directory and say it did not answer; the third is told at once that it is busy.
    assert sorted(s for s, _ in answers.values()) == [503, 504, 504]
    for status, body in answers.values():
        assert ("The directory did not answer" if status == 504 else "slow to answer") in body
    # Once it answers again, so does the console, on the same sessions.
    assert [p.get("/services")[0] for p in people] == [200, 200, 200]
