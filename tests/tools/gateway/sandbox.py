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

TREE = pathlib.Path(__file__).resolve().parents[3]
SETTINGS = "usr/local/etc/nginx/redfish-gateway.conf"
USER, PASSWORD = "admin", "sandbox"


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


class Sandbox:
    def __init__(self, binaries):
        self.binaries = pathlib.Path(binaries)
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="gateway.", dir="/tmp"))
        self.programs = {}
        self.port, self.secure_port = free_port(), free_port()
        self.address = f"http://127.0.0.1:{self.port}"
        subprocess.run([TREE / "scripts/lay-out-sandbox", self.root, binaries], check=True)
        settings = self.root / SETTINGS
        text = settings.read_text().replace("=8000", f"={self.port}").replace("=8443", f"={self.secure_port}")
        settings.write_text(text.replace("ANSWER_SECONDS=15", "ANSWER_SECONDS=2"))
        self.start("redis-server", self.root / "etc/redis/redis.conf")
        assert eventually(lambda: self.redis("ping") == "PONG"), "Redis does not start"
        self.fill_redis()
        self.start_daemon()
        if (self.binaries / "event-delivery").exists():
            self.start(self.binaries / "event-delivery")
        self.start_gateway()

    def start(self, program, *arguments):
        name = pathlib.Path(program).name
        environment = dict(os.environ, EVENT_SERVICE_ROOT=str(self.root))
        with open(self.root / f"var/log/{name}.output", "a") as output:
            self.programs[name] = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", program, *arguments], stdout=output, stderr=output, env=environment
            )

    def fill_redis(self):
        environment = dict(os.environ, EVENT_SERVICE_ROOT=str(self.root))
        subprocess.run([self.binaries / "load_platform", TREE / "share/platform"], check=True, env=environment)

    def start_daemon(self):
        self.start(self.binaries / "EventService")
        ready = lambda: self.redis("sismember", "&&AccessBlockList", "EventService") == "0"
        assert eventually(ready), "the daemon does not start"

    def start_gateway(self):
        self.start(self.binaries / "redfish-gateway")
        def answers():
            with contextlib.suppress(OSError):
                return self.ask("GET", "/redfish").status == 200
        assert eventually(answers), (self.root / "var/log/redfish-gateway.log").read_text()

    def send_signal(self, name, number):
        self.programs[name].send_signal(number)
        if number == signal.SIGKILL:
            self.programs[name].wait()
        if number == signal.SIGSTOP:
            # A stop is complete when each thread has come to it.
            tasks = pathlib.Path(f"/proc/{self.programs[name].pid}/task")
            stopped = lambda: all((task / "stat").read_text().split(") ")[1][0] == "T" for task in tasks.iterdir())
            assert eventually(stopped), f"{name} does not stop"

    def stop(self):
        for program in reversed(self.programs.values()):
            program.send_signal(signal.SIGCONT)
            program.terminate()
            program.wait(30)
        shutil.rmtree(self.root)

    def redis(self, *words):
        command = ["redis-cli", "-s", self.root / "run/redis/redis.sock", *words]
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()

    def tls(self):
        return ssl.create_default_context(cafile=self.root / "etc/certs/redfish-gateway/certificate.pem")

    def connect(self, secure=False):
        if secure:
            return http.client.HTTPSConnection("127.0.0.1", self.secure_port, timeout=30, context=self.tls())
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)

    def ask(self, method, path, body=None, headers=None, credentials=True, secure=False):
        """One request; a body that is no text is sent as JSON."""
        sent = {}
        if credentials:
            sent["Authorization"] = "Basic " + base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()
        if body is not None:
            sent["Content-Type"] = "application/json"
            body = body if isinstance(body, (str, bytes)) else json.dumps(body)
        sent.update(headers or {})
        with contextlib.closing(self.connect(secure)) as connection:
            connection.request(method, path, body, {name: value for name, value in sent.items() if value is not None})
            return Answer(connection.getresponse())
