#!/usr/bin/env python3
"""Plugin that keeps a file of packet filter rules, for nft, as the container firewall of ex-firewall says.

usage: firewall.py [--root DIR] [--run-dir DIR]
"""

from __future__ import annotations

import argparse
import logging
import signal
from datetime import datetime, timezone
from pathlib import Path

from atomic import write_atomically
from rules import FW, BadRule, RuleSet, read_packet, read_rules
from ymgrplugin import Call, Change, Element, Op, Plugin, PluginError, Query, Reject

CONFIG = "/ex-firewall:firewall"
STATE = "/ex-firewall:firewall/state"
LOOKUP = "/ex-firewall:lookup"

INVALID_RULE, NOT_WRITTEN = 1, 2  # codes of refusals

log = logging.getLogger("firewall")


class Firewall:
    def __init__(self, plugin: Plugin, root: Path) -> None:
        self.plugin = plugin
        self.file = root / "etc" / "ex-firewall.nft"
        self.in_force: RuleSet | None = None  # not known before the first change
        plugin.config(CONFIG, priority=50)(self.changed)
        plugin.on_ready(self.catch_up)
        plugin.status(STATE)(self.state)
        plugin.rpc(LOOKUP)(self.lookup)

    def changed(self, change: Change) -> None:
        """The rules depend on each other: the whole file is made anew, once, with the last node of a change."""
        if Op.ROLLBACK in change.oper_type:
            # What was in force is not checked again, and `more` says nothing here: a second write finds nothing to do.
            self.put_into_force(read_rules(self.plugin.pull(CONFIG, old=True)))
        elif not change.more:
            rules = read_rules(self.plugin.pull(CONFIG))
            try:
                rules.check()
            except BadRule as fault:
                raise Reject(str(fault), INVALID_RULE) from None
            self.put_into_force(rules)

    def catch_up(self) -> None:
        """Running may have lost its last rule while the plugin was away: of that no change tells."""
        rules = read_rules(self.plugin.pull(CONFIG))
        rules.check()
        self.put_into_force(rules)

    def put_into_force(self, rules: RuleSet) -> None:
        text = rules.render()
        try:
            if not self.file.is_file() or self.file.read_bytes() != text.encode():
                self.file.parent.mkdir(parents=True, exist_ok=True)
                write_atomically(self.file, text)
                log.info("%s: %d rules", self.file, len(rules.rules))
        except OSError as error:
            raise Reject(f"{self.file} can not be written: {error.strerror}", NOT_WRITTEN) from None
        self.in_force = rules

    def state(self, _query: Query) -> Element | None:
        if self.in_force is None:
            return None
        try:
            written = datetime.fromtimestamp(self.file.stat().st_mtime, timezone.utc)
        except FileNotFoundError:
            return None
        count = FW("rule-count", len(self.in_force.rules))
        return FW("firewall", FW("state", count, FW("last-write", written.isoformat(timespec="seconds"))))

    def lookup(self, call: Call) -> list[Element]:
        if self.in_force is None:
            raise Reject("no rules have been put into force yet", NOT_WRITTEN)
        action, rule = self.in_force.decide(read_packet(call.input))
        return [FW("action", action)] + ([] if rule is None else [FW("rule", rule)])


def main() -> None:
    parser = argparse.ArgumentParser(description="Keeps the packet filter rules of the device.")
    parser.add_argument("--root", type=Path, default=Path("/"), help="folder in which etc/ex-firewall.nft is kept")
    parser.add_argument("--run-dir", help="the daemon's run directory")
    arguments = parser.parse_args()
    logging.basicConfig(level=logging.INFO, format="%(name)s: %(levelname)s: %(message)s")
    with Plugin("firewall", arguments.run_dir) as plugin:
        Firewall(plugin, arguments.root)
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, lambda *_: plugin.stop())
        try:
            plugin.run()
        except PluginError as error:
            parser.exit(1, f"firewall: {error}\n")


if __name__ == "__main__":
    main()
