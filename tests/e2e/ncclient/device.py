"""A whole device in a directory of its own: database, daemon, two plugins, SSH server."""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import ncclient.transport.ssh
from ncclient import manager
from ncclient.devices.default import DefaultDeviceHandler

# How long a client's thread sleeps between two looks at what it shall send; with a tenth of a second the tests would sleep.
ncclient.transport.ssh.TICK = 0.005

SESSIONS = 16
MODULES = ["ex-types", "ex-sys", "ex-ext", "ex-bench", "ex-hello", "ex-device-system"]


class OldHandler(DefaultDeviceHandler):
    """A client that knows nothing newer than base 1.0."""

    _BASE_CAPABILITIES = ["urn:ietf:params:netconf:base:1.0"]


class Device:
    def __init__(self, build: str) -> None:
        self.bin = Path(build).resolve() / "bin"
        self.dir = Path(tempfile.mkdtemp(prefix="ymgr-ncclient.", dir="/tmp"))  # paths of unix sockets are short
        self.run_dir = self.dir / "run"
        self.processes: dict[str, subprocess.Popen] = {}

    def __enter__(self) -> "Device":
        try:
            self.prepare()
            socket = self.dir / "redis.sock"
            self.spawn("redis", "redis-server", "--port", "0", "--unixsocket", socket, "--save", "", "--dir", self.dir)
            self.wait_for("the database", socket.exists)
            self.start_daemon()
            command = [self.bin / "ymgr-netconf", "--run-dir", self.run_dir]
            subprocess.run(["scripts/private-sshd", "start", self.dir / "ssh", *command], check=True, env=self.environment(),
                           stdout=subprocess.DEVNULL)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_) -> None:
        self.stop()
        shutil.rmtree(self.dir)

    def prepare(self) -> None:
        for name in ("modules", "run", "ssh", "root/etc"):
            (self.dir / name).mkdir(parents=True)
        for folder in ("modules", "examples/modules", "examples/plugins/hello", "examples/plugins/system"):
            for module in Path(folder).glob("*.yang"):
                shutil.copy(module, self.dir / "modules")
        profile = json.loads(Path("examples/ymgrd.conf").read_text())
        for part in (profile["database"]["driver"], profile["schema"]):
            part["path"] = f"unix://{self.dir}/redis.sock"
        profile["session-spec"] = SESSIONS
        profile["modules"] += [{"name": name, "revision": "2026-01-01"} for name in MODULES[-2:]]
        (self.dir / "ymgrd.conf").write_text(json.dumps(profile))

    def environment(self) -> dict:
        """Of all processes of the device: what a sanitizer finds is in files, as a client sees no other output."""
        options = {f"{tool}_OPTIONS": os.environ.get(f"{tool}_OPTIONS", "") for tool in ("ASAN", "UBSAN")}
        logged = {name: f"{value}:log_path={self.dir}/sanitizer".lstrip(":") for name, value in options.items()}
        return {**os.environ, **logged, "PYTHONPATH": "src/python", "YMGR_RUN_DIR": str(self.run_dir)}

    def spawn(self, name: str, *command) -> None:
        with open(self.dir / f"{name}.log", "a", encoding="utf-8") as log:
            self.processes[name] = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=log,
                                                    stderr=log, env=self.environment())

    def start_daemon(self) -> None:
        (self.dir / "ymgrd.log").write_text("")
        self.spawn("ymgrd", self.bin / "ymgrd", "--profile", self.dir / "ymgrd.conf", "--run-dir", self.run_dir, "--log-stderr")
        self.wait_for("the daemon", (self.run_dir / "agent.sock").exists)
        self.spawn("hello", sys.executable, "-B", "examples/plugins/hello/hello.py")
        self.spawn("system", self.bin / "ymgr-example-system", "--root", self.dir / "root")
        log = self.dir / "ymgrd.log"
        for plugin in ("hello", "example-system"):
            self.wait_for(f"the plugin {plugin}", lambda: f"Plugin {plugin} is ready" in log.read_text())

    def wait_for(self, what: str, condition) -> None:
        deadline = time.monotonic() + 60
        while not condition():
            dead = [name for name, process in self.processes.items() if process.poll() is not None]
            if dead or time.monotonic() > deadline:
                self.show_logs()
                raise RuntimeError(f"{what} did not come; ended: {dead}")
            time.sleep(0.02)

    def stop_daemon(self, how=signal.SIGTERM) -> None:
        for name in ("ymgrd", "hello", "system"):
            if name in self.processes:
                self.end(name, how)

    def end(self, name: str, how=signal.SIGTERM) -> int:
        process = self.processes.pop(name)
        if process.poll() is None:
            process.send_signal(how)
        try:
            return process.wait(30)
        except subprocess.TimeoutExpired:
            process.kill()
            return process.wait()

    def stop(self) -> list:
        """Ends everything. Returns what a sanitizer had to say."""
        subprocess.run(["scripts/private-sshd", "stop", self.dir / "ssh"], check=True)
        for name in reversed(list(self.processes)):
            self.end(name)
        return [file.read_text() for file in self.dir.glob("sanitizer*")]

    def show_logs(self) -> None:
        for log in (*self.dir.glob("*.log"), self.dir / "ssh/sshd.log"):
            print(f"== the end of {log.name}", *log.read_text().splitlines()[-40:], sep="\n", file=sys.stderr)

    def connect(self, old: bool = False, **more) -> manager.Manager:
        """A new client; `old` if it shall announce base 1.0 only."""
        ssh = self.dir / "ssh"
        return manager.connect(host="127.0.0.1", port=int((ssh / "port").read_text()), key_filename=str(ssh / "user_key"),
                               hostkey_b64=(ssh / "host_key.pub").read_text().split()[1], allow_agent=False, look_for_keys=False,
                               device_params={"handler": OldHandler} if old else {}, timeout=60, **more)
