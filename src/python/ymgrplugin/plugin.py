"""A plugin: what it registers, its life with the daemon, and what it may ask."""

from __future__ import annotations

import argparse
import enum
import logging
import os
import select
import signal
import socket
import threading
import time
from collections import deque
from collections.abc import Callable
from dataclasses import dataclass
from typing import TypeVar

from . import messages, paths
from .connection import Connection
from .errors import ConnectionLost, PluginError, Reject
from .markup import Content, Element, parse, render
from .messages import Reply, Request, field, number_of, text_of

DEFAULT_RUN_DIR = "/run/ymgrd"

_FIRST_RETRY = 0.1  # seconds; each further one waits twice as long as the one before
_LAST_RETRY = 5.0
_MAX_REASON = 4096  # characters of a refusal's text

log = logging.getLogger("ymgrplugin")


class Op(enum.IntFlag):
    """What happened to a node."""

    ADD = 1  # new, with all below it
    RM = 2  # gone, with all below it
    MOD = 4  # a leaf with another value
    CHAIN = 8  # itself as it was, something below it changed
    MOVE = 16  # an entry of a user-ordered list stands elsewhere: Plugin.locate() tells where
    CFGR = 16384  # restore: running is handed over whole, after the plugin has started
    ROLLBACK = 32768  # the change that the other bits name is to be taken back, to the old data
    SMOOTH = 65536  # after the daemon was cut off: bring this node to what running holds now


@dataclass(frozen=True)
class Change:
    """One changed node at or below a subscribed path."""

    session_id: int  # of the client; -1 in a restore, -2 in a smooth start
    oper_type: Op
    priority: int  # of the subscription
    more: bool  # this subscription is offered a further node of the same change; says nothing in a rollback
    path: str  # data path of the node


@dataclass(frozen=True)
class Query:
    """A get asks for state data."""

    session_id: int
    path: str
    filter: str  # "" when all is asked for


@dataclass(frozen=True)
class Call:
    """A client called an operation."""

    session_id: int
    input: Element  # the operation's element, checked against its module


ConfigFn = Callable[[Change], None]
StatusFn = Callable[[Query], Content]
RpcFn = Callable[[Call], Content]
ReadyFn = Callable[[], None]
_Fn = TypeVar("_Fn", bound=Callable[..., object])


class _Stage(enum.IntEnum):
    APART = 0  # no connection
    REGISTERING = 1
    ACTIVATING = 2
    ACTIVE = 3
    READY = 4  # has the configuration


class Plugin:
    """A process that implements configuration, supplies state data or implements operations.

        plugin = Plugin("hostname")

        @plugin.config("/ex-sys:system/hostname", priority=10)
        def hostname_changed(change: Change) -> None:
            ...

        plugin.run()

    A callback accepts by returning. It refuses by raising Reject; any other exception refuses too, with its text, and
    is logged. Paths name modules, not prefixes: "/MODULE:TOP/child/OTHERMODULE:child".

    All on one thread: callbacks run inside process() or run(). Only stop() may be called from elsewhere.
    """

    def __init__(
        self,
        name: str,
        run_dir: str | os.PathLike[str] | None = None,
        *,
        max_message_size: int = messages.MAX_MESSAGE_SIZE,
        reply_timeout: float = 10.0,
    ) -> None:
        """`run_dir` is the daemon's run directory; else $YMGR_RUN_DIR, else /run/ymgrd."""
        self.name = name
        self.run_dir = os.fspath(run_dir or os.environ.get("YMGR_RUN_DIR") or DEFAULT_RUN_DIR)
        self._max_message_size = max_message_size
        self._reply_timeout = reply_timeout
        # The daemon names a callback by its position here.
        self._config: list[tuple[str, int, ConfigFn]] = []
        self._status: list[tuple[str, StatusFn]] = []
        self._rpc: list[tuple[str, RpcFn]] = []
        self._ready: list[ReadyFn] = []

        self._stage = _Stage.APART
        self._was_ready = False
        self._connection: Connection | None = None
        self._requests: deque[Request] = deque()  # of the daemon, in order
        self._last_id = 0
        self._awaited_id = 0  # of our request that waits for its reply; 0: none
        self._reply: Reply | None = None

        self._is_stopping = False
        self._may_connect = True
        self._retry_delay = _FIRST_RETRY
        self._retry_timer: threading.Timer | None = None
        # One descriptor for the plugin's life: it holds the connection, and the end of a pair that wakes the loop.
        self._epoll = select.epoll()
        self._wake_in, self._wake_out = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
        self._epoll.register(self._wake_in, select.EPOLLIN)
        self._wake()

    # --- Registering, before the first connection

    def config(self, path: str, priority: int = 10) -> Callable[[_Fn], _Fn]:
        """Decorates what is called for changes at or below `path`. Subscriptions of all plugins are served by
        ascending priority; a refused change is taken back everywhere, in reverse order."""

        def register(function: _Fn) -> _Fn:
            self._config.append((path, priority, function))
            return function

        return self._registering(register)

    def status(self, path: str) -> Callable[[_Fn], _Fn]:
        """Decorates what gives state data below `path`: XML from the top node on, or None."""

        def register(function: _Fn) -> _Fn:
            self._status.append((path, function))
            return function

        return self._registering(register)

    def rpc(self, path: str) -> Callable[[_Fn], _Fn]:
        """Decorates what implements the operation "/MODULE:NAME": gives the output's elements, or None."""

        def register(function: _Fn) -> _Fn:
            self._rpc.append((path, function))
            return function

        return self._registering(register)

    def on_ready(self, function: ReadyFn) -> ReadyFn:
        """Decorates what is called when the configuration has been handed over, after each connection. Nothing is
        offered for what is not configured (any more): this is the place to clear it away."""
        self._ready.append(function)
        return function

    def _registering(self, register: Callable[[_Fn], _Fn]) -> Callable[[_Fn], _Fn]:
        if self._connection is not None:
            raise PluginError("registered already: the daemon takes no further paths")
        return register

    # --- Asking the daemon: one round trip each, within a callback or outside

    def pull(self, path: str, old: bool = False) -> Element | None:
        """All at and below `path`, in an element <data> that holds the top nodes; None when there is nothing. During
        a change `old` is what running held before it, else what it will hold; during a rollback too."""
        data = self._call("pull", field("path", path) + field("old", int(old)))
        if len(data) == 0:
            return None
        data.tag = "data"
        return data

    def value(self, path: str, old: bool = False) -> str | None:
        """The value of the leaf at `path`; None when there is none."""
        values = self.values(path, old)
        return values[0] if values else None

    def values(self, path: str, old: bool = False) -> list[str]:
        """The values of all leafs or leaf-list entries that `path` names, in their order."""
        data = self.pull(path, old)
        return [] if data is None else [node.text or "" for node in paths.select(data, path) if len(node) == 0]

    def locate(self, path: str, old: bool = False) -> tuple[str | None, str | None]:
        """The data paths of the entries before and behind the list or leaf-list entry `path`; None at the ends."""
        places = self._call("locate", field("path", path) + field("old", int(old)))
        return text_of(places, "prev") or None, text_of(places, "next") or None

    def push(self, path: str, data: Content) -> None:
        """State data that answers later gets, until it is pushed anew or the plugin ends. Replaces what was pushed at
        `path`, which lies at or below a path of status(). None takes it back."""
        self._call("push", field("path", path) + f"<data>{render(data)}</data>")

    def notify(self, event: Content) -> None:
        """An event for the clients that subscribed to notifications: one element, defined by a YANG notification; one
        inside of containers and lists stands in all that is above it. It is sent as a datagram of at most 256 KiB:
        nobody tells whether it was wanted, and what its notification does not admit is only logged by the daemon.
        PluginError when the daemon's socket does not take it."""
        text = render(event)
        if len(parse(text)) != 1:
            raise ValueError("an event is one element")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as sender:
            try:
                sender.sendto(text.encode(), os.path.join(self.run_dir, "notify.sock"))
            except OSError as error:
                raise PluginError(f"the event was not taken: {error.strerror}") from None

    # --- Running

    def run(self) -> None:
        """Connects, serves, and connects again when the connection is lost, until stop(). PluginError when that can
        not help: the daemon refused the registration."""
        try:
            while not self._is_stopping:
                self._epoll.poll()
                self.process()
        finally:
            self._disconnect()

    def main(self) -> int:
        """For a program that does nothing else: reads "--run-dir DIR", logs to standard error, runs until SIGTERM or
        SIGINT. Gives the exit status."""
        parser = argparse.ArgumentParser(description=f"The plugin {self.name}.")
        parser.add_argument("--run-dir", default=self.run_dir, help="the daemon's run directory (%(default)s)")
        self.run_dir = parser.parse_args().run_dir
        logging.basicConfig(level=logging.INFO, format="%(name)s: %(levelname)s: %(message)s")
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, lambda *_: self.stop())
        try:
            self.run()
        except PluginError as error:
            log.error("%s", error)
            return 1
        return 0

    def stop(self) -> None:
        """Ends run(). May be called from a signal handler or another thread."""
        self._is_stopping = True
        self._wake()

    def fileno(self) -> int:
        """For an application with a loop of its own: process() is to be called when this is readable. It stays the
        same for the plugin's life."""
        return self._epoll.fileno()

    def process(self) -> None:
        """Serves what waits, and connects as needed. Waits for nothing but what callbacks do. PluginError as run()."""
        self._take_wakes()
        if self._is_stopping or not self._connect():
            return
        try:
            self._take_messages()
            self._advance()
            while self._requests and self._stage >= _Stage.ACTIVE and not self._is_stopping:
                self._serve(self._requests.popleft())
            self._watch_connection()
        except ConnectionLost as error:
            self._lose_connection(error)

    @property
    def is_ready(self) -> bool:
        """The daemon has handed over the configuration and counts on the plugin."""
        return self._stage == _Stage.READY

    def close(self) -> None:
        """Ends the connection, and the descriptor too: the plugin is of no further use."""
        self._is_stopping = True
        self._disconnect()
        self._epoll.close()
        self._wake_in.close()
        self._wake_out.close()

    def __enter__(self) -> Plugin:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    # --- The connection's life

    def _wake(self) -> None:
        try:
            self._wake_out.send(b"\0")
        except OSError:
            pass  # full: it is awake; closed: nobody is to be woken

    def _take_wakes(self) -> None:
        try:
            while self._wake_in.recv(4096):
                pass
        except BlockingIOError:
            pass

    def _connect(self) -> bool:
        """True when there is a connection."""
        if self._connection is not None:
            return True
        if not self._may_connect:
            return False
        path = os.path.join(self.run_dir, "plugin.sock")
        try:
            connection = Connection(path, self._max_message_size)
        except OSError as error:
            first = self._retry_delay == _FIRST_RETRY
            log.log(
                logging.WARNING if first else logging.DEBUG,
                "%s: no connection to %s (%s), trying again",
                self.name,
                path,
                error.strerror,
            )
            self._retry_later()
            return False
        self._connection = connection
        self._epoll.register(connection, select.EPOLLIN)
        self._stage = _Stage.REGISTERING
        try:
            self._send_request("register", self._registration())
        except ConnectionLost as error:
            self._lose_connection(error)
            return False
        return True

    def _disconnect(self) -> None:
        if self._retry_timer is not None:
            self._retry_timer.cancel()
            self._retry_timer = None
        if self._connection is not None:
            self._epoll.unregister(self._connection)
            self._connection.close()
            self._connection = None
        self._stage = _Stage.APART
        self._requests.clear()
        self._awaited_id = 0
        self._reply = None

    def _lose_connection(self, error: ConnectionLost) -> None:
        log.warning("%s: connection lost: %s", self.name, error)
        self._disconnect()
        self._retry_later()

    def _retry_later(self) -> None:
        # A thread, as the descriptor has to become readable by itself. It touches nothing but the flag and the pair.
        self._may_connect = False
        self._retry_timer = threading.Timer(self._retry_delay, self._retry)
        self._retry_timer.daemon = True
        self._retry_timer.start()
        self._retry_delay = min(2 * self._retry_delay, _LAST_RETRY)

    def _retry(self) -> None:
        self._may_connect = True
        self._wake()

    def _watch_connection(self) -> None:
        if self._connection is not None:
            wanted = select.EPOLLIN | (select.EPOLLOUT if self._connection.has_unsent else 0)
            self._epoll.modify(self._connection, wanted)

    def _registration(self) -> str:
        params = [field("plugin-name", self.name)]
        for callback, (path, priority, _) in enumerate(self._config):
            entry = field("path", path) + field("priority", priority) + field("callback", callback)
            params.append(f"<config-subscribe>{entry}</config-subscribe>")
        for callback, (path, _status) in enumerate(self._status):
            params.append(f"<status-publish>{field('path', path)}{field('callback', callback)}</status-publish>")
        for callback, (path, _rpc) in enumerate(self._rpc):
            params.append(f"<operate-subscribe>{field('path', path)}{field('callback', callback)}</operate-subscribe>")
        return "".join(params)

    def _advance(self) -> None:
        """One step further when the daemon has answered a step of the registration."""
        if self._reply is None or self._stage not in (_Stage.REGISTERING, _Stage.ACTIVATING):
            return
        try:
            self._take_reply()
        except PluginError as error:
            self._disconnect()
            raise PluginError(f"the daemon refused plugin {self.name}: {error}", error.code) from None
        if self._stage == _Stage.REGISTERING:
            self._stage = _Stage.ACTIVATING
            # Of one that had been ready the daemon may remember what its changes got to before they were cut off.
            smooth = field("with-smooth", 1) if self._was_ready else ""
            self._send_request("activate", field("with-cfgr", 1) + smooth)
        else:
            self._stage = _Stage.ACTIVE
            self._retry_delay = _FIRST_RETRY
            log.info("%s: registered", self.name)

    # --- Requests of the plugin

    def _send_request(self, method: str, params: str) -> None:
        assert self._connection is not None
        self._last_id = self._last_id % messages.MAX_MESSAGE_ID + 1
        self._connection.send(self._frame(messages.build_request(self._last_id, method, params), self._last_id))
        self._awaited_id = self._last_id

    def _take_messages(self) -> None:
        assert self._connection is not None
        self._connection.flush()
        for message in self._connection.receive():
            if isinstance(message, Request):
                self._requests.append(message)
            elif message.id == self._awaited_id:
                self._awaited_id = 0
                self._reply = message
            else:
                log.warning("%s: a reply that nobody waits for (any more): %d", self.name, message.id)

    def _take_reply(self) -> Element:
        reply, self._reply = self._reply, None
        assert reply is not None
        if reply.result is None:
            raise PluginError(reply.message or "no reason was given", reply.code)
        return reply.result

    def _call(self, method: str, params: str) -> Element:
        """Sends a request and waits for its result. Requests of the daemon that come meanwhile are kept."""
        if self._connection is None or self._stage < _Stage.ACTIVE:
            raise PluginError(f"{method}: the plugin is not connected to the daemon")
        deadline = time.monotonic() + self._reply_timeout
        try:
            self._send_request(method, params)
            while self._reply is None:
                if not self._connection.wait(deadline):
                    raise PluginError(f"{method}: the daemon did not answer within {self._reply_timeout:g} s")
                self._take_messages()
        except ConnectionLost as error:
            self._lose_connection(error)
            raise
        finally:
            self._awaited_id = 0
            self._watch_connection()
            if self._requests:
                self._wake()
        return self._take_reply()

    # --- Requests of the daemon

    def _serve(self, request: Request) -> None:
        connection = self._connection
        assert connection is not None
        try:
            answer = self._frame(messages.build_result(request.id, self._handle(request)), request.id)
        except Reject as refusal:
            answer = self._refusal(request, refusal.code, str(refusal))
        except Exception as error:
            if not isinstance(error, ConnectionLost):
                log.exception("%s: %s failed", self.name, describe(request))
            answer = self._refusal(request, -1, str(error) or type(error).__name__)
        if self._connection is not connection:
            log.warning("%s: %s: nobody is there to be answered", self.name, describe(request))
            return
        connection.send(answer)
        if request.method == "kickoff":
            self._stage = _Stage.READY
            self._was_ready = True

    def _frame(self, text: str, message_id: int) -> bytes:
        return messages.frame(text, message_id, self._max_message_size)

    def _refusal(self, request: Request, code: int, message: str) -> bytes:
        return self._frame(messages.build_error(request.id, code, message[:_MAX_REASON]), request.id)

    def _handle(self, request: Request) -> str:
        """The result's content."""
        handler = _HANDLERS.get((request.method, text_of(request.params, "type")))
        if handler is None:
            raise ValueError(f"unknown method {request.method}")
        return render(handler(self, request.params))

    def _on_publish_config(self, params: Element) -> None:
        _, _, function = _entry(self._config, params)
        info = _info_of(params)
        function(
            Change(
                session_id=number_of(params, "session-id"),
                oper_type=Op(number_of(info, "oper-type")),
                priority=number_of(info, "priority"),
                more=number_of(info, "more-flag") != 0,
                path=text_of(info, "path"),
            )
        )

    def _on_publish_operate(self, params: Element) -> Content:
        _, function = _entry(self._rpc, params)
        return function(Call(number_of(params, "session-id"), _info_of(params)[0]))

    def _on_subscribe(self, params: Element) -> Content:
        _, function = _entry(self._status, params)
        return function(Query(number_of(params, "session-id"), text_of(params, "path"), text_of(params, "filter")))

    def _on_kickoff(self, _params: Element) -> None:
        for function in self._ready:
            try:
                function()
            except ConnectionLost:
                raise
            except Exception:
                # The configuration has been handed over all the same, and there is nobody who could refuse it.
                log.exception("%s: a function of on_ready() failed", self.name)


# By method and type.
_HANDLERS: dict[tuple[str, str], Callable[[Plugin, Element], Content]] = {
    ("kickoff", ""): Plugin._on_kickoff,
    ("publish", "config"): Plugin._on_publish_config,
    ("publish", "operate"): Plugin._on_publish_operate,
    ("subscribe", "config"): Plugin._on_subscribe,
}

_Row = TypeVar("_Row")


def _entry(table: list[_Row], params: Element) -> _Row:
    callback = number_of(params, "callback")
    if not 0 <= callback < len(table):
        raise ValueError(f"unknown callback {callback}")
    return table[callback]


def _info_of(params: Element) -> Element:
    info = params.find("info")
    if info is None or len(info) == 0:
        raise ValueError("a publication without its content")
    return info


def describe(request: Request) -> str:
    """For the log: no values of the configuration but those of keys."""
    path = text_of(request.params, "path") or (request.params.findtext("info/path") or "").strip()
    info = request.params.find("info")
    if not path and info is not None and len(info) > 0:
        path = info[0].tag
    return f"{request.method} {path}".rstrip()
