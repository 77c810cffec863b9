"""The binding's errors, with code, name and meaning from the one table of codes (codes.json)."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Dict, Tuple

_PACKAGE = Path(__file__).resolve().parent


def _load_codes() -> Dict[int, Tuple[str, str]]:
    # In a checkout, the package's codes.json is a link to common/codes.json; installing copies it.
    try:
        with open(_PACKAGE / "codes.json", encoding="utf-8") as f:
            return {c["code"]: (c["name"], c["meaning"]) for c in json.load(f)["codes"]}
    except OSError:
        return {}  # a package installed without it: errors still carry their codes


CODES: Dict[int, Tuple[str, str]] = _load_codes()
"""Every code of libPelmora, libTarnwell and the bindings: code -> (name, meaning)."""

NO_LIBRARY = 201
ALREADY_LISTENING = 202


class PelmoraError(Exception):
    """A non-zero code: .code, and its .name and .meaning from the table of codes. From
    start_adb_server the code is libTarnwell's."""

    __module__ = "pelmora"

    def __init__(self, code: int, operation: str, detail: str = "") -> None:
        self.code = code
        self.name, self.meaning = CODES.get(code, ("", "an unknown code"))
        named = " (%s)" % self.name if self.name else ""
        super().__init__("%s failed with code %d%s: %s%s" % (operation, code, named, self.meaning, detail))


class LibraryNotFound(PelmoraError, OSError):
    """libPelmora could not be loaded from any place; the message names each place tried."""
    __module__ = "pelmora"

    def __init__(self, tried: str) -> None:
        super().__init__(NO_LIBRARY, "loading libPelmora", tried)


class AlreadyListening(PelmoraError, RuntimeError):
    """listen() while another listener of the process is active."""
    __module__ = "pelmora"

    def __init__(self) -> None:
        super().__init__(ALREADY_LISTENING, "listen")
