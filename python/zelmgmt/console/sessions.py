"""The console's sessions, kept on the server only.

The browser holds a random key in a cookie; everything else (the signed-in
library session, the form token, notices for the next page) stays here.  A
session nobody used for `idle_seconds` ends, and its directory connection
is closed with it.
"""
from __future__ import annotations

import hmac
import secrets
import threading
import time
from pathlib import Path
from dataclasses import dataclass, field
from typing import Callable, Dict, List, Optional

import zelmgmt

# Visitors who opened the sign-in page but never signed in: a bound so that
# fetching that page in a loop cannot fill the memory.
MAX_VISITORS = 1000


@dataclass
class ConsoleSession:
    key: str
    csrf_token: str
    last_used: float
    zel: Optional[zelmgmt.Session] = None
    # The same person in the first-generation form, where services of the
    # Zel database's own types are written; None when it could not open.
    zel1: Optional[zelmgmt.Session] = None
    who: str = ""
    role: str = ""
    own: Optional[str] = None      # the signed-in person's own Zel user name
    pending: Optional[dict] = None  # an uploaded import waiting for its confirmation
    notices: List[tuple] = field(default_factory=list)
    # One library session serves one thread at a time.
    lock: threading.Lock = field(default_factory=threading.Lock)

    def token_matches(self, offered: Optional[str]) -> bool:
        return offered is not None and hmac.compare_digest(offered.encode(), self.csrf_token.encode())

    def notice(self, kind: str, text: str, small: str = "", link: Optional[str] = None) -> None:
        self.notices.append((kind, text, small, link))

    def take_notices(self) -> List[tuple]:
        taken, self.notices = self.notices, []
        return taken

    def close(self) -> None:
        if self.pending:
            Path(self.pending["file"]).unlink(missing_ok=True)
            self.pending = None
        if self.zel1 is not None:
            self.zel1.close()
            self.zel1 = None
        if self.zel is not None:
            self.zel.close()
            self.zel = None


class SessionStore:
    def __init__(self, idle_seconds: float = 15 * 60, clock: Callable[[], float] = time.monotonic):
        self.idle_seconds = idle_seconds
        self._clock = clock
        self._sessions: Dict[str, ConsoleSession] = {}
        self._mutex = threading.Lock()

    def _expire(self, now: float) -> None:
        for key, s in list(self._sessions.items()):
            if now - s.last_used > self.idle_seconds and s.lock.acquire(blocking=False):
                try:
                    del self._sessions[key]
                    s.close()
                finally:
                    s.lock.release()

    def get(self, key: Optional[str]) -> Optional[ConsoleSession]:
        """The live session of `key`, its idle clock restarted; None when unknown or expired."""
        now = self._clock()
        with self._mutex:
            self._expire(now)
            s = self._sessions.get(key or "")
            if s is not None:
                s.last_used = now
            return s

    def start(self, zel: Optional[zelmgmt.Session] = None, who: str = "") -> ConsoleSession:
        """A new session under a fresh key (a sign-in never keeps the visitor's key)."""
        now = self._clock()
        s = ConsoleSession(secrets.token_urlsafe(32), secrets.token_urlsafe(32), now, zel=zel, who=who)
        with self._mutex:
            self._expire(now)
            visitors = [k for k, v in self._sessions.items() if v.zel is None]
            if zel is None and len(visitors) >= MAX_VISITORS:
                oldest = min(visitors, key=lambda k: self._sessions[k].last_used)
                del self._sessions[oldest]
            self._sessions[s.key] = s
        return s

    def end(self, s: ConsoleSession) -> None:
        with self._mutex:
            self._sessions.pop(s.key, None)
        s.close()

    def close_all(self) -> None:
        with self._mutex:
            sessions, self._sessions = list(self._sessions.values()), {}
        for s in sessions:
            s.close()
