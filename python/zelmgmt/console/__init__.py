"""zelmgmt-console: a small web console over the binding, for the people who
keep services, resource groups, users and their accounts day to day.

    from zelmgmt.console import create_app
    app = create_app("ldap://127.0.0.1:389")

`python3 -m zelmgmt.console --help` (or the installed `zelmgmt-console`)
serves it with waitress.
"""
from .app import create_app

__all__ = ["create_app"]
