"""Search, sort and paging of a list page, from its query string.

The search is plain text matched, ignoring case, against every shown column
of what the library read; it is never part of a directory filter.
"""
from __future__ import annotations

from typing import Callable, Dict, List

from flask import request, url_for

PAGE_SIZE = 50


class Listing:
    def __init__(self, items: List, columns: Dict[str, Callable], default: str, keep: Dict[str, str] = None,
                 default_desc: bool = False):
        self.keep = {k: v for k, v in (keep or {}).items() if v}
        self.q = request.args.get("q", "").strip()[:200]
        self.sort = request.args.get("sort", default)
        if self.sort not in columns:
            self.sort = default
        self.desc = request.args.get("dir", "desc" if default_desc else "asc") == "desc"
        if self.q:
            folded = self.q.casefold()
            items = [i for i in items if any(folded in (get(i) or "").casefold() for get in columns.values())]
        key = columns[self.sort]
        items = sorted(items, key=lambda i: ((key(i) or "").casefold(), key(i) or ""), reverse=self.desc)
        self.total = len(items)
        self.pages = max((self.total + PAGE_SIZE - 1) // PAGE_SIZE, 1)
        try:
            self.page = min(max(int(request.args.get("page", "1")), 1), self.pages)
        except ValueError:
            self.page = 1
        start = (self.page - 1) * PAGE_SIZE
        self.rows = items[start:start + PAGE_SIZE]

    def args(self, **changes) -> Dict[str, str]:
        args = dict(self.keep, q=self.q, sort=self.sort, dir="desc" if self.desc else "asc", page=str(self.page))
        args.update({k: str(v) for k, v in changes.items()})
        return {k: v for k, v in args.items() if v and not (k == "page" and v == "1")}

    def url(self, **changes) -> str:
        return url_for(request.endpoint, **self.args(**changes))

    def sort_url(self, column: str) -> str:
        desc = column == self.sort and not self.desc
        return self.url(sort=column, dir="desc" if desc else "asc", page=1)

    def aria_sort(self, column: str) -> str:
        if column != self.sort:
            return "none"
        return "descending" if self.desc else "ascending"
