#!/usr/bin/python3
"""What a manager and an operator see: NETCONF over SSH with ncclient, and the command line ymgrctl.

Prints each step, and ends with 0 only when all of it was right. Expects the running system that scripts/demo starts.
"""

import argparse
import pathlib
import subprocess
import sys
import textwrap

from lxml import etree
from ncclient import manager
from ncclient.operations import RPCError

BASE = "urn:ietf:params:xml:ns:netconf:base:1.0"
SYSTEM = "urn:ex-device-system"
EVENTS = "urn:ietf:params:xml:ns:yang:ietf-netconf-notifications"
BASE_1_1 = "urn:ietf:params:netconf:base:1.1"
CANDIDATE = "urn:ietf:params:netconf:capability:candidate:1.0"
ANSWER_SECONDS = 20


class Story:
    """Counts the steps and what was wrong in them."""

    def __init__(self):
        self.steps = 0
        self.faults = 0

    def step(self, title):
        self.steps += 1
        print(f"\n== {self.steps}. {title}", flush=True)

    def show(self, what, text):
        print(f"   {what}:")
        print(textwrap.indent(text.rstrip("\n"), "      "), flush=True)

    def expect(self, is_right, what):
        print(f"   [{'right' if is_right else 'WRONG'}] {what}", flush=True)
        self.faults += not is_right


def pretty(xml):
    element = etree.fromstring(xml.encode())
    etree.indent(element)
    return etree.tostring(element, encoding="unicode")


class Operator:
    """Runs ymgrctl as an operator would type it."""

    def __init__(self, story, program, run_dir):
        self.story = story
        self.command = [program, "--run-dir", run_dir]

    def types(self, *words):
        done = subprocess.run(self.command + list(words), capture_output=True, text=True, timeout=60, check=False)
        shown = " ".join(f'"{word}"' if set(word) & set(" '[") else word for word in words)
        self.story.show(f"ymgrctl {shown}", done.stdout + done.stderr or "(silence: it is done)")
        return done


def connect(arguments):
    return manager.connect(host="127.0.0.1", port=arguments.port, username=arguments.user,
                           key_filename=arguments.key, hostkey_verify=False, allow_agent=False,
                           look_for_keys=False, timeout=ANSWER_SECONDS)


def hello(story, device):
    story.step("a manager connects over SSH (ncclient): the hello")
    capabilities = sorted(device.server_capabilities)
    protocol = [capability for capability in capabilities if "module=" not in capability]
    modules = [capability for capability in capabilities if "module=" in capability]
    story.show(f"session {device.session_id}, the device announces", "\n".join(protocol + modules[:3]) +
               f"\n... and {len(modules) - 3} modules more")
    story.expect(BASE_1_1 in capabilities and CANDIDATE in capabilities, "chunked framing and candidate are announced")
    story.expect(any("module=ex-device-system" in module for module in modules), "so is the plugin's module")


def next_change(device):
    """The next report of a changed configuration, as text; empty when none comes."""
    while (notification := device.take_notification(timeout=ANSWER_SECONDS)) is not None:
        if notification.notification_ele.find(f"{{{EVENTS}}}netconf-config-change") is not None:
            return notification.notification_xml
    return ""


def manage(story, device, root):
    story.step("it subscribes to events, locks candidate, edits the device's name and commits")
    device.create_subscription()
    with device.locked("candidate"):
        device.edit_config(target="candidate", default_operation="merge", config=f"""
            <config xmlns="{BASE}">
              <system xmlns="{SYSTEM}"><hostname>gw-west</hostname></system>
            </config>""")
        device.commit()
    running = device.get_config("running", filter=("subtree", f'<system xmlns="{SYSTEM}"><hostname/></system>'))
    story.show("running", pretty(running.data_xml))
    story.expect("gw-west" in running.data_xml, "running has the new name")

    story.step("the plugin has acted, and the event arrives on the same session")
    name = (root / "etc/hostname").read_text(encoding="utf-8")
    story.show(f"{root}/etc/hostname", name)
    story.expect(name.strip() == "gw-west", "the device's file has the new name")
    event = next_change(device)
    story.show("came", pretty(event) if event else "nothing")
    story.expect("hostname" in event, "the event names the leaf")


def operate(story, device, operator, root):
    rules = root / "etc/ex-firewall.nft"
    rule = "/ex-firewall:firewall/rule[name='dns']"
    story.step("an operator edits with ymgrctl and looks at what would change")
    operator.types("set", f"{rule}/action", "drop")
    operator.types("set", f"{rule}/protocol", "icmp")
    operator.types("set", f"{rule}/port", "53")
    difference = operator.types("diff")
    story.expect(difference.returncode == 0 and "+" in difference.stdout and "dns" in difference.stdout,
                 "the difference of candidate and running shows the rule")

    story.step("the firewall's plugin refuses that, and says why; nothing has changed")
    before = rules.read_text(encoding="utf-8")
    refused = operator.types("commit")
    story.expect(refused.returncode == 1 and "dns" in refused.stderr, "commit fails with the plugin's message")
    story.expect(rules.read_text(encoding="utf-8") == before, "the rules are what they were")

    story.step("a refused commit has emptied candidate; the operator enters the rule as it should be")
    for leaf, value in (("action", "accept"), ("protocol", "udp"), ("port", "53")):
        operator.types("set", f"{rule}/{leaf}", value)
    story.expect(operator.types("commit").returncode == 0, "the commit is accepted")
    story.show(str(rules), rules.read_text(encoding="utf-8"))
    story.expect("53" in rules.read_text(encoding="utf-8"), "the rule is in force")
    event = next_change(device)
    story.expect("firewall" in event, "the manager hears of it")
    story.expect(operator.types("diff").stdout == "", "candidate and running are equal")


def look(story, device, operator):
    story.step("errors look the same from everywhere: an unknown place")
    try:
        device.edit_config(target="candidate",
                           config=f'<config xmlns="{BASE}"><system xmlns="{SYSTEM}"><hostnam/></system></config>')
        story.expect(False, "the edit is refused")
    except RPCError as error:
        story.show("ncclient", f"{error.tag}: {error.message}\n{error.path}")
        story.expect(error.tag == "unknown-element", "the manager is told which")
    story.expect(operator.types("set", "/ex-device-system:system/hostnam", "x").returncode == 4,
                 "the operator is told before anything is sent")

    story.step("ymgrctl status: what runs")
    status = operator.types("status")
    story.expect(status.returncode == 0 and "firewall" in status.stdout, "the plugins are listed")
    story.expect(operator.types("save").returncode == 0, "running is saved to startup")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--port", type=int, required=True, help="of the SSH server on 127.0.0.1")
    parser.add_argument("--user", required=True)
    parser.add_argument("--key", required=True, help="private key of the user")
    parser.add_argument("--ymgrctl", required=True, help="the program")
    parser.add_argument("--run-dir", required=True)
    parser.add_argument("--root", type=pathlib.Path, required=True, help="where the plugins keep their files")
    arguments = parser.parse_args()

    story = Story()
    operator = Operator(story, arguments.ymgrctl, arguments.run_dir)
    with connect(arguments) as device:
        hello(story, device)
        device.discard_changes()
        manage(story, device, arguments.root)
        operate(story, device, operator, arguments.root)
        look(story, device, operator)
    if story.faults:
        print(f"\n{story.faults} checks failed.", file=sys.stderr)
    return 1 if story.faults else 0


if __name__ == "__main__":
    sys.exit(main())
