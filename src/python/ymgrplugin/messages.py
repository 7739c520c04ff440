"""Messages of the plugin socket: their frames and the XML envelope around what they carry.

    request  <rpc><method>NAME</method><params>...</params><id>N</id></rpc>
    reply    <reply><result>...</result><id>N</id></reply>
             <reply><error><code>C</code><message>TEXT</message></error><id>N</id></reply>

A frame is a head of 12 bytes in machine byte order (magic, length of the text, message id, 0) and the XML text.
"""

from __future__ import annotations

import re
import struct
from dataclasses import dataclass
from xml.sax.saxutils import escape

from .markup import Element, parse

MAX_MESSAGE_SIZE = 64 * 1024 * 1024  # of the XML text, unless configured otherwise
MAX_MESSAGE_ID = 0xFFFF  # ids start at 1

_MAGIC = 0xFEDCBAFF
_HEAD = struct.Struct("=IIHH")
_NOT_IN_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


@dataclass(frozen=True)
class Request:
    id: int
    method: str
    params: Element


@dataclass(frozen=True)
class Reply:
    id: int
    result: Element | None  # None: an error
    code: int = 0
    message: str = ""


def field(name: str, value: object) -> str:
    """One element of a message. ValueError when the text can not be carried."""
    text = str(value)
    if _NOT_IN_XML.search(text):
        raise ValueError(f"a character that XML can not carry in {name}")
    # A bare carriage return would arrive as a line feed.
    return f"<{name}>{escape(text, {chr(13): '&#13;'})}</{name}>"


def build_request(message_id: int, method: str, params: str) -> str:
    return f"<rpc>{field('method', method)}<params>{params}</params>{field('id', message_id)}</rpc>"


def build_result(message_id: int, content: str) -> str:
    return f"<reply><result>{content}</result>{field('id', message_id)}</reply>"


def build_error(message_id: int, code: int, message: str) -> str:
    error = field("code", code) + field("message", _NOT_IN_XML.sub("?", message))
    return f"<reply><error>{error}</error>{field('id', message_id)}</reply>"


def frame(text: str, message_id: int, limit: int) -> bytes:
    body = text.encode()
    if len(body) > limit:
        raise ValueError(f"a message of {len(body)} bytes; {limit} are allowed")
    return _HEAD.pack(_MAGIC, len(body), message_id, 0) + body


class FrameReader:
    """Puts frames together from what arrives, however it is cut. ValueError for what is no frame: nothing behind it
    can be trusted."""

    def __init__(self, limit: int) -> None:
        self._limit = limit
        self._buffer = bytearray()

    def feed(self, data: bytes) -> list[bytes]:
        """The texts of the frames that are complete now."""
        self._buffer += data
        texts = []
        at = 0
        while len(self._buffer) - at >= _HEAD.size:
            magic, length, _, _ = _HEAD.unpack_from(self._buffer, at)
            if magic != _MAGIC:
                raise ValueError("what arrived is no frame")
            if length > self._limit:
                raise ValueError(f"a frame of {length} bytes; {self._limit} are allowed")
            end = at + _HEAD.size + length
            if len(self._buffer) < end:
                break
            texts.append(bytes(self._buffer[at + _HEAD.size : end]))
            at = end
        del self._buffer[:at]
        return texts


def text_of(parent: Element, name: str) -> str:
    """The text of a child, white space at its ends cut off; "" when there is none."""
    return (parent.findtext(name) or "").strip()


def number_of(parent: Element, name: str) -> int:
    text = text_of(parent, name)
    if not re.fullmatch(r"[+-]?[0-9]{1,20}", text):
        raise ValueError(f"{name} is not a number")
    return int(text)


def parse_message(text: bytes) -> Request | Reply:
    elements = parse(text)
    if len(elements) != 1:
        raise ValueError("a message is one element")
    message = elements[0]
    message_id = number_of(message, "id")
    if message.tag == "rpc":
        params = message.find("params")
        if params is None or not text_of(message, "method"):
            raise ValueError("a request without method or params")
        return Request(message_id, text_of(message, "method"), params)
    if message.tag != "reply":
        raise ValueError(f"neither request nor reply: {message.tag}")
    result, error = message.find("result"), message.find("error")
    if error is not None and result is None:
        return Reply(message_id, None, number_of(error, "code"), text_of(error, "message"))
    if result is None or error is not None:
        raise ValueError("a reply with neither, or both, of result and error")
    return Reply(message_id, result)
