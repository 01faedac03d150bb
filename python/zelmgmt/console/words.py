"""What the console says: a library status as a sentence a helpdesk can act
on, names checked before they reach the library, and long text shortened
for notices.  The status code itself goes in small print beside the sentence.
"""
from __future__ import annotations

from typing import Optional

import zelmgmt

# The directory did not answer within the request time-out.
TIMED_OUT = 1015
# What the console shows for a status the directory gives when it cannot be
# reached or stops answering.
UNANSWERED = {TIMED_OUT, 1001, 1008}

SENTENCES = {
    2: "The directory refused or failed the change.",
    4: "The user name or password is wrong, or the account may not sign in.",
    5: "That already exists.",
    6: "The directory has no such entry.",
    7: "Not permitted: your account may not do this.",
    8: "There is no such service type.",
    10: "It still holds entries below it, so it cannot be removed as it is.",
    13: "The record holds no account or password.",
    14: "There is no such service.",
    17: "What is stored differs from what was asked for.",
    19: "There is no such user.",
    23: "A name or value has a form the directory does not accept.",
    24: "There is no such record.",
    26: "The group has no such member.",
    28: "There is no such person in the directory.",
    29: "The directory holds no sign-on database.",
    32: "There is no such resource group.",
    33: "The user is disabled.",
    35: "The directory has no such security domain.",
    1000: "Something failed on the console's side; try again, and tell the administrator if it stays.",
    1001: "The directory could not be reached.",
    1003: "The directory could not be read at all.",
    1004: "No such entry was found.",
    1005: "Something in the form is not accepted.",
    1006: "The secure connection to the directory could not be set up.",
    1008: "The directory did not answer in time, or a limit was reached.",
    1009: "The directory rejected the request.",
    1012: "The console ran out of memory.",
    1013: "A stored password could not be decoded with the console's keys.",
    1014: "The directory's schema does not allow this entry.",
    TIMED_OUT: "The directory did not answer. The change may or may not have been made; look again once it answers.",
    8999: "More than one entry matched; the name is ambiguous.",
    9000: "This directory does not support that.",
}


def sentence(status: int) -> str:
    return SENTENCES.get(status, "The directory reported a problem.")


def shorten(text: Optional[str], limit: int = 60) -> str:
    """A name as a notice shows it: never more than `limit` characters."""
    text = text or ""
    return text if len(text) <= limit else text[:limit - 1] + "…"


class Refused(Exception):
    """Input the console refuses before anything is sent."""


# The longest name the console accepts; a DN holds more, a person reads less.
MAX_NAME = 256


def checked_name(value: Optional[str], what: str = "name") -> str:
    """A name as zelctl takes it from its command line: text without NUL or
    other control characters, not empty, not blank at either end."""
    value = value or ""
    if "\x00" in value:
        raise Refused(f"The {what} holds a NUL character; nothing was changed.")
    if any(ord(c) < 0x20 or ord(c) == 0x7f for c in value):
        raise Refused(f"The {what} holds a control character; nothing was changed.")
    value = value.strip()
    if not value:
        raise Refused(f"The {what} is empty; nothing was changed.")
    if len(value) > MAX_NAME:
        raise Refused(f"The {what} is longer than {MAX_NAME} characters; nothing was changed.")
    return value


def checked_text(value: Optional[str], what: str) -> str:
    """A free text field (a description, an account): may be empty."""
    value = value or ""
    if "\x00" in value:
        raise Refused(f"The {what} holds a NUL character; nothing was changed.")
    return value.strip()


def failure(e: zelmgmt.Error) -> tuple:
    """(sentence, small print) of a failed call."""
    small = f"status {e.status}"
    if e.detail:
        small += f" · {shorten(e.detail, 200)}"
    return sentence(e.status), small
