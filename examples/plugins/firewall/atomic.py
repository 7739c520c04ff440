"""Files that are there as a whole or as they were, also after a power failure."""

from __future__ import annotations

import os
from pathlib import Path


def write_atomically(path: Path, text: str) -> None:
    """Replaces `path`; its folder must be there. OSError with the file as it was."""
    draft = path.with_name(f".{path.name}.new")
    folder = os.open(path.parent, os.O_RDONLY | os.O_DIRECTORY)
    try:
        # One writer: a draft that is there was left by one that died.
        draft.unlink(missing_ok=True)
        try:
            with open(draft, "x", encoding="utf-8") as file:
                os.fchmod(file.fileno(), 0o644)
                file.write(text)
                file.flush()
                os.fsync(file.fileno())
            draft.replace(path)
        except OSError:
            draft.unlink(missing_ok=True)
            raise
        # The new name reaches the disk with its folder.
        os.fsync(folder)
    finally:
        os.close(folder)
