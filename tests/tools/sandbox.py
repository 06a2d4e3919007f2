"""A sandbox with everything that scripts/run starts, on ports of its own, and a plain client for it."""

import base64
import contextlib
import http.client
import json
import os
import pathlib
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import time

TREE = pathlib.Path(__file__).resolve().parents[2]
USER, PASSWORD = "admin", "sandbox"
SERVICE = "/redfish/v1/EventService"
COLLECTION = SERVICE + "/Subscriptions"
TEST_EVENT = SERVICE + "/Actions/EventService.SubmitTestEvent"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def eventually(holds, seconds=20):
    """What `holds` gives as soon as it is true; the last value when it does not become so in time."""
    end = time.monotonic() + seconds
    while not (value := holds()) and time.monotonic() < end:
        time.sleep(0.02)
    return value


class Answer:
    def __init__(self, response):
        self.status, self.headers, self.text = response.status, response.headers, response.read().decode()

    @property
    def json(self):
        return json.loads(self.text)

    @property
    def message_ids(self):
        document = self.json
        info = document.get("error", document).get("@Message.ExtendedInfo", [])
        return [message["MessageId"].rsplit(".", 1)[1] for message in info]


def validate(document, namespace, definition):
    """The faults of a document as a schema of REDFISH_SCHEMAS sees them; none where there is no such schema."""
    if not pathlib.Path(os.environ.get("REDFISH_SCHEMAS", "/nowhere"), namespace + ".json").exists():
        return ""
    command = [TREE / "tests/support/validate_schema.py", namespace + ".json", definition]
    return subprocess.run(command, input=json.dumps(document), capture_output=True, text=True, check=False).stdout


class Sandbox:
    def __init__(self, binaries, configuration=""):
        """`configuration`: further lines for the daemon and for event delivery, where @ROOT@ is the sandbox."""
        self.binaries = pathlib.Path(binaries)
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="gateway.", dir="/tmp"))
        self.programs = {}
        self.port, self.secure_port = free_port(), free_port()
        self.host, self.password = "127.0.0.1", PASSWORD
        self.address = f"http://127.0.0.1:{self.port}"
        subprocess.run([TREE / "scripts/lay-out-sandbox", self.root, binaries], check=True)
        self.settings = self.root / "usr/local/etc/nginx/redfish-gateway.conf"
        text = self.settings.read_text().replace("=8000", f"={self.port}").replace("=8443", f"={self.secure_port}")
        self.settings.write_text(text.replace("ANSWER_SECONDS=15", "ANSWER_SECONDS=2"))
        with open(self.root / "usr/local/etc/nginx/eventingMode.conf", "a") as file:
            file.write(configuration.replace("@ROOT@", str(self.root)))
        self.start_redis()
        self.start_daemon()
        self.start("event-delivery")
        self.start_gateway()

    def start(self, name, *arguments):
        """Starts a program of ours, or another one that has no such name."""
        ours = self.binaries / name
        command = ["setpriv", "--pdeathsig", "KILL", ours if ours.exists() else name, *arguments]
        # Memory that was given back is given back under the address sanitizer too.
        environment = dict(os.environ, EVENT_SERVICE_ROOT=str(self.root), ASAN_OPTIONS="quarantine_size_mb=1")
        with open(self.root / f"var/log/{name}.output", "a") as output:
            self.programs[name] = subprocess.Popen(command, stdout=output, stderr=output, env=environment)
        return self.programs[name]

    def logged(self):
        """Everything that anybody has logged."""
        return "".join(file.read_text(errors="replace") for file in sorted((self.root / "var/log").iterdir()))

    def start_redis(self):
        self.start("redis-server", self.root / "etc/redis/redis.conf")
        assert eventually(lambda: self.redis("ping") == "PONG"), "Redis does not start"
        self.fill_redis()

    def fill_redis(self):
        self.redis("flushall")
        assert self.start("load_platform", TREE / "share/platform").wait() == 0

    def start_daemon(self):
        self.start("EventService")
        ready = lambda: self.redis("sismember", "&&AccessBlockList", "EventService") == "0"
        assert eventually(ready), "the daemon does not start"

    def start_gateway(self):
        self.start("redfish-gateway")

        def answers():
            with contextlib.suppress(OSError):
                return self.ask("GET", "/redfish").status == 200

        assert eventually(answers), self.logged()

    def send_signal(self, name, number):
        self.programs[name].send_signal(number)
        if number in (signal.SIGKILL, signal.SIGTERM):
            self.programs[name].wait(30)
        if number == signal.SIGSTOP:
            # Until each thread has come to its stop.
            os.waitid(os.P_PID, self.programs[name].pid, os.WSTOPPED)

    def stop(self):
        for program in reversed(self.programs.values()):
            program.send_signal(signal.SIGCONT)
            program.terminate()
            program.wait(30)
        findings = [line for line in self.logged().splitlines() if "Sanitizer" in line or "runtime error:" in line]
        shutil.rmtree(self.root)
        assert not findings, findings

    def resident_memory(self, name):
        pages = pathlib.Path(f"/proc/{self.programs[name].pid}/statm").read_text().split()[1]
        return int(pages) * os.sysconf("SC_PAGESIZE")

    def redis(self, *words):
        command = ["redis-cli", "-s", self.root / "run/redis/redis.sock", *words]
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()

    def connect(self, secure=False):
        if secure:
            tls = ssl.create_default_context(cafile=self.root / "etc/certs/redfish-gateway/certificate.pem")
            return http.client.HTTPSConnection("127.0.0.1", self.secure_port, timeout=30, context=tls)
        return http.client.HTTPConnection(self.host, self.port, timeout=30)

    def ask(self, method, path, body=None, headers=None, secure=False):
        """One request; a body that is no text is sent as JSON. `headers` may set None for one that is not sent."""
        credentials = base64.b64encode(f"{USER}:{self.password}".encode()).decode()
        sent = {"Authorization": "Basic " + credentials}
        if body is not None:
            sent["Content-Type"] = "application/json"
            body = body if isinstance(body, str) else json.dumps(body)
        sent.update(headers or {})
        with contextlib.closing(self.connect(secure)) as connection:
            connection.request(method, path, body, {name: value for name, value in sent.items() if value is not None})
            return Answer(connection.getresponse())
