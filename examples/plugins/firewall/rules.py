"""Packet filter rules: read from configuration data, checked, tried on a packet, rendered for nft."""

from __future__ import annotations

import ipaddress
from dataclasses import dataclass
from typing import Union

from ymgrplugin import Element, Namespace

FW = Namespace("urn:ex-firewall")

Address = Union[ipaddress.IPv4Address, ipaddress.IPv6Address]
Network = Union[ipaddress.IPv4Network, ipaddress.IPv6Network]

_PORT_PROTOCOLS = ("tcp", "udp")
_PROTOCOL_VERSION = {"icmp": 4, "icmpv6": 6}
_NFT_PROTOCOL = {"icmpv6": "ipv6-icmp"}
_NFT_FAMILY = {4: "ip", 6: "ip6"}

_FILE = """\
# Made from the configuration; changes by hand are lost.
table inet ex_firewall
delete table inet ex_firewall
table inet ex_firewall {{
  chain input {{
    type filter hook input priority filter; policy {policy};
{rules}  }}
}}
"""


class BadRule(Exception):
    """A rule set that can not be put into force; the text names the rule."""


@dataclass(frozen=True)
class Packet:
    source: Address
    destination: Address
    protocol: str | None = None
    port: int | None = None


@dataclass(frozen=True)
class Rule:
    """A condition that is None holds for all packets."""

    name: str
    action: str
    protocol: str | None = None
    source: Network | None = None
    destination: Network | None = None
    port: int | None = None

    @property
    def is_unconditional(self) -> bool:
        return self.protocol is None and self.source is None and self.destination is None and self.port is None

    def check(self) -> None:
        if self.port is not None and self.protocol not in _PORT_PROTOCOLS:
            raise BadRule(f"rule {self.name}: a port needs protocol tcp or udp")
        if self.source and self.destination and self.source.version != self.destination.version:
            raise BadRule(f"rule {self.name}: source and destination are of different address families")
        network = self.source or self.destination
        version = _PROTOCOL_VERSION.get(self.protocol or "")
        if network and version and network.version != version:
            raise BadRule(f"rule {self.name}: {self.protocol} is not of the addresses' family")

    def matches(self, packet: Packet) -> bool:
        return (
            (self.protocol is None or self.protocol == packet.protocol)
            and (self.source is None or packet.source in self.source)
            and (self.destination is None or packet.destination in self.destination)
            and (self.port is None or self.port == packet.port)
        )

    def render(self) -> str:
        parts = [_nft_address("saddr", self.source), _nft_address("daddr", self.destination)]
        if self.port is not None:
            parts.append(f"{self.protocol} dport {self.port}")
        elif self.protocol is not None:
            parts.append(f"meta l4proto {_NFT_PROTOCOL.get(self.protocol, self.protocol)}")
        parts += [self.action, f'comment "{self.name}"']
        return " ".join(part for part in parts if part)


def _nft_address(field: str, network: Network | None) -> str:
    if network is None:
        return ""
    if network.prefixlen == 0:
        return f"meta nfproto ipv{network.version}"
    return f"{_NFT_FAMILY[network.version]} {field} {network}"


@dataclass(frozen=True)
class RuleSet:
    policy: str = "accept"
    rules: tuple[Rule, ...] = ()

    def check(self) -> None:
        decided_by = None
        for rule in self.rules:
            rule.check()
            if decided_by is not None:
                raise BadRule(f"rule {rule.name} can never match: rule {decided_by} before it matches all packets")
            if rule.is_unconditional:
                decided_by = rule.name

    def decide(self, packet: Packet) -> tuple[str, str | None]:
        """What becomes of the packet, and the name of the rule that says so."""
        for rule in self.rules:
            if rule.matches(packet):
                return rule.action, rule.name
        return self.policy, None

    def render(self) -> str:
        return _FILE.format(policy=self.policy, rules="".join(f"    {rule.render()}\n" for rule in self.rules))


def read_rules(data: Element | None) -> RuleSet:
    """From what was pulled of the container firewall: its entries stand in the user's order."""
    firewall = None if data is None else data.find("firewall", FW.scope)
    if firewall is None:
        return RuleSet()
    return RuleSet(
        policy=_text(firewall, "default-policy") or RuleSet.policy,
        rules=tuple(_read_rule(entry) for entry in firewall.iterfind("rule", FW.scope)),
    )


def _read_rule(entry: Element) -> Rule:
    source, destination = _text(entry, "source"), _text(entry, "destination")
    return Rule(
        name=_text(entry, "name") or "",
        action=_text(entry, "action") or "",
        protocol=_text(entry, "protocol"),
        source=ipaddress.ip_network(source, strict=False) if source else None,
        destination=ipaddress.ip_network(destination, strict=False) if destination else None,
        port=_number(entry, "port"),
    )


def read_packet(call: Element) -> Packet:
    return Packet(
        source=ipaddress.ip_address(_text(call, "source") or ""),
        destination=ipaddress.ip_address(_text(call, "destination") or ""),
        protocol=_text(call, "protocol"),
        port=_number(call, "port"),
    )


def _text(parent: Element, name: str) -> str | None:
    return parent.findtext(name, None, FW.scope)


def _number(parent: Element, name: str) -> int | None:
    text = _text(parent, name)
    return None if text is None else int(text)
