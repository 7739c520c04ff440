"""Data paths: "/MODULE:TOP/list[key="value"]/leaf"."""

from __future__ import annotations

import re

from .markup import Element

_PREDICATE = r"""\[(?:[^\[\]"']|"(?:\\.|[^"\\])*"|'[^']*')*\]"""
_STEP = re.compile(rf"""/+(?:([^/:\[\]'"]+):)?([^/:\[\]'"]+)((?:{_PREDICATE})*)""", re.DOTALL)


def quoted(value: str) -> str:
    """`value` as it stands in a predicate: f"/m:list[name={quoted(name)}]"."""
    return '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'


def steps(path: str) -> list[tuple[str | None, str]]:
    """Module (None: that of the step before) and name of each step; predicates are left out."""
    found = []
    at = 0
    module = None
    while at < len(path.rstrip("/")):
        match = _STEP.match(path, at)
        if match is None:
            raise ValueError(f"not a data path: {path}")
        found.append((match[1] if match[1] != module else None, match[2]))
        module = match[1] or module
        at = match.end()
    return found


def _namespace(element: Element) -> str:
    return element.tag[1:].partition("}")[0] if element.tag.startswith("{") else ""


def select(data: Element, path: str) -> list[Element]:
    """The elements that `path` names in what was pulled from there: no other entries stand in it, so that predicates
    need no look. Namespaces are not known to the plugin, but that they change where the module does."""
    nodes = [data]
    for module, name in steps(path):
        nodes = [
            child
            for node in nodes
            for child in node
            if child.tag.rpartition("}")[2] == name and (_namespace(child) != _namespace(node)) == (module is not None)
        ]
    return nodes
