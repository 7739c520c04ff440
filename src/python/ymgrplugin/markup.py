"""XML data: what pull() gives and what push(), notify() and the callbacks take."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Union
from xml.etree import ElementTree

Element = ElementTree.Element

# Elements, or XML text of any number of elements. Text goes out as it stands; it is the form for values that hold a
# prefix, because an Element does not know the prefixes of its values.
Content = Union[str, Element, Iterable[Element], None]


class Namespace:
    """Makes elements of one YANG module's namespace:

    EX = Namespace("urn:ex")
    EX("system", EX("hostname", "gw"), EX("uptime", 7))
    """

    def __init__(self, uri: str) -> None:
        self.uri = uri
        # For the search functions of Element: data.findtext("system/hostname", None, EX.scope)
        self.scope = {"": uri}

    def __call__(self, name: str, *content: object) -> Element:
        element = Element(f"{{{self.uri}}}{name}")
        for part in content:
            if isinstance(part, Element):
                element.append(part)
            else:
                element.text = (element.text or "") + as_value(part)
        return element


def as_value(value: object) -> str:
    """A leaf's text as YANG writes it."""
    if isinstance(value, bool):
        return "true" if value else "false"
    return str(value)


def parse(text: str | bytes) -> Element:
    """An element <data> around the elements of `text`. ValueError when they are not well-formed."""
    # Inside an element neither a document type (thus no entity) nor a declaration is well-formed.
    parser = ElementTree.XMLParser()
    try:
        parser.feed(b"<data>")
        parser.feed(text.encode() if isinstance(text, str) else text)
        parser.feed(b"</data>")
        data = parser.close()
    except ElementTree.ParseError as error:
        raise ValueError(f"not well-formed XML: {error}") from None
    assert isinstance(data, Element)
    if (data.text or "").strip() or any((child.tail or "").strip() for child in data):
        raise ValueError("text outside of an element")
    return data


def render(content: Content) -> str:
    """The XML text of `content`. ValueError when it would not be well-formed."""
    if content is None:
        return ""
    if isinstance(content, str):
        text = content
    else:
        elements = [content] if isinstance(content, Element) else content
        text = "".join(ElementTree.tostring(element, encoding="unicode") for element in elements)
    # Elements are checked too: they may hold characters that XML can not carry.
    parse(text)
    return text
