#!/usr/bin/python3
"""The gateway in a whole sandbox, used by clients that are not ours.

Usage: gateway_test.py BINARIES [unittest options]
"""

import concurrent.futures
import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import xml.etree.ElementTree

from sandbox import COLLECTION, PASSWORD, SERVICE, TEST_EVENT, TREE, USER, Sandbox, eventually, free_port, validate

SESSIONS = "/redfish/v1/SessionService/Sessions"
SUBSCRIPTION = {"Destination": "https://192.0.2.1/events", "Protocol": "Redfish", "Context": "rack 7"}
LOGIN = {"UserName": USER, "Password": PASSWORD}
LIFE = COLLECTION + "/a-whole-life"
LIFE_BODY = SUBSCRIPTION | {"Id": "a-whole-life", "HttpHeaders": [{"X-Token": "secret"}]}

sandbox = None


def setUpModule():
    global sandbox
    sandbox = Sandbox(BINARIES)


def tearDownModule():
    sandbox.stop()


class Stream:
    """An open event stream."""

    def __init__(self, test, query="", secure=False):
        test.addCleanup(self.close)
        self.connection = sandbox.connect(secure)
        token = sandbox.ask("POST", SESSIONS, LOGIN).headers["X-Auth-Token"]
        self.connection.request("GET", SERVICE + "/SSE" + query, headers={"X-Auth-Token": token})
        self.response = self.connection.getresponse()
        self.uri = None
        while self.response.status == 200 and not self.uri:  # a comment that may stand behind the first events
            line = self.response.readline().decode().strip()
            self.uri = line[2:] if line.startswith(": /redfish/") else None

    def publish(self, document, times=1):
        channel = sandbox.redis("hget", self.uri, "&&SSE-CHANNEL")
        sandbox.redis("-r", str(times), "publish", channel, document)

    def event(self):
        """The next event as (id, document); nothing at the end of the stream."""
        identifier, end = None, time.monotonic() + 20
        while line := self.response.readline().decode():
            if time.monotonic() > end:
                raise TimeoutError("no event, only heartbeats")
            if line.startswith("id: "):
                identifier = line[4:-1]
            if line.startswith("data: "):
                return identifier, json.loads(line[6:])
        return None

    def close(self):
        self.response.close()
        self.connection.close()


def no_request_is_left(test):
    # Streams that earlier tests have left are deleted by and by, by requests too.
    test.assertTrue(eventually(lambda: not sandbox.redis("keys", "&&Request:*")))


class Rules(unittest.TestCase):
    """What HTTP and the Redfish protocol ask of every request."""

    # method, path, body, headers, status, message; credentials are sent but for rows that say otherwise; ETAG and OLD in
    # a header are the last tag of an answer and the one before
    ROWS = [
        ("GET", "/redfish", None, {"Authorization": None}, 200, None),
        ("GET", "/redfish/v1/$metadata", None, {"Authorization": None}, 200, None),
        ("GET", "/redfish/v1/", None, {"OData-Version": "4.0 "}, 200, None),
        ("GET", "/redfish/v1/", None, {"OData-Version": "4.01"}, 412, "PreconditionFailed"),
        ("GET", "/redfish/v1/odata", None, {"Accept": "text/html;q=0, Application/*;q=0.5"}, 200, None),
        ("GET", "/redfish/v1/odata", None, {"Accept": "application/json; q=0.0, */*"}, 406, None),
        ("GET", "/redfish/v1/odata", None, {"Accept": "text/html, image/png"}, 406, "ResourceAtUriInUnknownFormat"),
        ("GET", "http://any.host/redfish/v1/", None, {}, 200, None),
        ("DELETE", "/redfish/v1/", None, {}, 405, "MethodNotAllowed"),
        ("PUT", SERVICE, {}, {}, 405, "MethodNotAllowed"),
        ("GET", TEST_EVENT, None, {}, 405, "MethodNotAllowed"),
        ("GET", TEST_EVENT + "s", None, {}, 404, "ResourceMissingAtURI"),
        ("GET", COLLECTION + "/none/Actions/EventDestination.ResumeSubscription", None, {}, 404, "ResourceMissingAtURI"),
        ("POST", COLLECTION, {"Destination": "http://192.0.2.1/"}, {}, 400, "CreateFailedMissingReqProperties"),
        ("BREW", SERVICE, None, {}, 405, "MethodNotAllowed"),
        ("GET", "/redfish/v1/Chassis", None, {}, 404, "ResourceMissingAtURI"),
        ("GET", COLLECTION + "/none", None, {}, 404, "ResourceMissingAtURI"),
        ("PUT", COLLECTION + "/none", {}, {}, 404, "ResourceMissingAtURI"),
        ("DELETE", COLLECTION + "/none", None, {}, 404, "ResourceMissingAtURI"),
        ("DELETE", COLLECTION + "/none-of-them", None, {}, 404, "ResourceMissingAtURI"),
        ("PATCH", COLLECTION + "/none", {"Context": "x"}, {}, 404, "ResourceMissingAtURI"),
        ("POST", SERVICE + "/Actions/EventService.Explode", {}, {}, 404, "ActionNotSupported"),
        ("GET", "/redfish/v1/%2e%2e/EventService", None, {}, 404, "InvalidURI"),
        ("GET", "/redfish/v1/EventService%2FSubscriptions", None, {}, 404, "InvalidURI"),
        ("GET", "/redfish/v1/EventService%0", None, {}, 404, "InvalidURI"),
        ("GET", "/redfish//v1", None, {}, 404, "InvalidURI"),
        ("GET", SERVICE + "/SSE?$filter=MessageId+eq+'%ff'", None, {}, 404, "InvalidURI"),
        ("GET", SERVICE + "?" + "x" * 9000, None, {}, 414, "GeneralError"),
        ("GET", SERVICE, None, {"X-Long": "x" * 17000}, 431, "GeneralError"),
        ("GET", "/redfish/v1/%45ventService/", None, {}, 200, None),
        ("GET", SERVICE, None, {"Authorization": None, "OData-Version": "4.01"}, 401, "NoValidSession"),
        ("GET", "/redfish/v1/%ff", None, {"Authorization": None}, 401, "NoValidSession"),
        ("GET", SERVICE, None, {"Authorization": "Basic YWRtaW46d3Jvbmc="}, 401, "NoValidSession"),
        ("GET", SERVICE, None, {"Authorization": "Basic ???"}, 401, "NoValidSession"),
        ("GET", SERVICE, None, {"X-Auth-Token": "wrong"}, 401, "NoValidSession"),
        ("POST", SESSIONS + "/Members", LOGIN, {"Authorization": None}, 201, None),
        ("POST", SESSIONS, LOGIN | {"Password": "x"}, {"Authorization": None}, 401, "ResourceAtUriUnauthorized"),
        ("POST", SESSIONS, LOGIN | {"Password": 7}, {"Authorization": None}, 400, "PropertyValueError"),
        ("POST", SESSIONS, {"UserName": USER}, {"Authorization": None}, 400, "CreateFailedMissingReqProperties"),
        ("PATCH", SERVICE, {}, {"If-None-Match": "*"}, 412, "PreconditionFailed"),
        ("PATCH", "/redfish/v1/SessionService", {"SessionTimeout": 600}, {}, 200, None),
        ("PATCH", "/redfish/v1/SessionService", {"SessionTimeout": 29}, {}, 400, "PropertyValueOutOfRange"),
        ("PATCH", "/redfish/v1/SessionService", {"Id": "x"}, {}, 400, "PropertyNotWritable"),
        ("GET", SERVICE + "?$expand=.", None, {}, 501, "QueryNotSupported"),
        ("GET", SERVICE + "?$filter=Id%20eq%20'1'", None, {}, 501, "QueryNotSupported"),
        ("GET", SERVICE + "?only", None, {}, 400, "QueryNotSupportedOnResource"),
        ("GET", SERVICE + "?excerpt&colour=red", None, {}, 200, None),
        ("GET", COLLECTION + "?only", None, {}, 200, None),
        ("PATCH", SERVICE + "?$select=Id", {}, {}, 400, "QueryNotSupportedOnOperation"),
        ("PATCH", SERVICE, "{}", {"Content-Type": "text/plain"}, 415, "UnrecognizedRequestBody"),
        ("PATCH", SERVICE, "{}", {"Content-Type": "Application/JSON; charset=utf-8"}, 200, "NoOperation"),
        ("PATCH", SERVICE, "", {}, 400, "MalformedJSON"),
        ("PATCH", SERVICE, "[]", {}, 400, "UnrecognizedRequestBody"),
        ("PATCH", SERVICE, "[" * 100000, {}, 400, "InvalidJSON"),
        ("PATCH", SERVICE, '{"A":' + "[" * 100 + "]" * 100 + "}", {}, 400, "UnrecognizedRequestBody"),
        ("PATCH", SERVICE, '{"A": 1e999}', {}, 400, "UnrecognizedRequestBody"),
        ("PATCH", SERVICE, '{"A": 1}\0', {}, 400, "InvalidJSON"),
        ("PATCH", SERVICE, '{"Id": 1, "Id": 2}', {}, 400, "PropertyDuplicate"),
        ("PATCH", SERVICE, " " * (1 << 20) + "{}", {}, 413, "UnrecognizedRequestBody"),
        ("POST", TEST_EVENT, {"MessageId": "Base.1.12.Success"}, {}, 200, "Success"),
        ("POST", TEST_EVENT, {"MessageId": 1}, {}, 400, "ActionParameterValueTypeError"),
        ("GET", SERVICE + "/SSE?$filter=Colour eq 'red'".replace(" ", "%20"), None, {}, 400, None),
        ("GET", SERVICE + "/SSE?$filter=MessageId+eq+1", None, {}, 400, "QueryParameterValueTypeError"),
        ("GET", SERVICE + "/SSE?$filter=" + "(" * 1000, None, {}, 400, "QueryParameterValueFormatError"),
        ("GET", SERVICE + "/SSE?$filter=MessageId+eq+'a'+or+ResourceType+eq+'b'", None, {}, 501, "QueryNotSupported"),
        ("GET", SERVICE + "/SSE?$filter=RegistryPrefix+eq+'Nobody'", None, {}, 400, "PropertyValueNotInList"),
        ("GET", SERVICE + "/SSE", None, {"Accept": "application/json"}, 406, "ResourceAtUriInUnknownFormat"),
        ("HEAD", SERVICE + "/SSE", None, {}, 200, None),
        ("POST", COLLECTION + "/Members", LIFE_BODY, {}, 201, None),
        ("GET", LIFE, None, {"If-None-Match": '"x", ETAG'}, 304, None),
        ("PATCH", LIFE, {"Context": "rack 8"}, {"If-Match": "W/ETAG"}, 412, "PreconditionFailed"),
        ("PATCH", LIFE, {"Context": "rack 8", "Protocol": "SMTP"}, {"If-Match": "ETAG"}, 200, "PropertyNotWritable"),
        ("PATCH", LIFE, {"Context": "rack 8"}, {}, 200, "NoOperation"),
        ("POST", LIFE + "/Actions/EventDestination.ResumeSubscription", None, {}, 200, "NoOperation"),
        ("DELETE", LIFE, None, {"If-Match": "OLD"}, 412, "PreconditionFailed"),
        ("DELETE", LIFE, None, {"If-Match": "*"}, 204, None),
        ("GET", LIFE, None, {}, 404, "ResourceMissingAtURI"),
    ]

    def test_each_request_gets_its_status_and_message(self):
        tags = ["", ""]
        for method, path, body, headers, status, message in self.ROWS:
            with self.subTest(method=method, path=path[:80], body=str(body)[:40], headers=headers):
                sent = {name: value and value.replace("ETAG", tags[-1]).replace("OLD", tags[-2])
                        for name, value in headers.items()}
                answer = sandbox.ask(method, path, body, sent)
                self.assertEqual(answer.status, status, answer.text)
                if message:
                    self.assertIn(message, answer.message_ids)
                self.assertEqual(answer.headers["OData-Version"], "4.0")
                self.assertEqual(answer.headers["Cache-Control"], "no-store")
                is_read = status < 400 and method in ("GET", "HEAD")
                self.assertEqual("Allow" in answer.headers, is_read or status == 405)
                self.assertEqual("WWW-Authenticate" in answer.headers, status == 401)
                self.assertEqual(answer.headers["Location"], answer.json["@odata.id"] if status == 201 else None)
                self.assertNotIn("secret", answer.text)
                if answer.headers["ETag"] not in (None, tags[-1]):
                    tags.append(answer.headers["ETag"])
        no_request_is_left(self)

    def test_a_malformed_body_is_answered_with_its_line(self):
        info = sandbox.ask("PATCH", SERVICE, '{"A":\n\n tru}').json["error"]["@Message.ExtendedInfo"][0]
        self.assertEqual((info["MessageId"], info["MessageArgs"]), ("Base.1.12.InvalidJSON", ["3"]))

    def test_a_head_is_a_get_without_its_body(self):
        get, head = sandbox.ask("GET", SERVICE), sandbox.ask("HEAD", SERVICE)
        self.assertEqual(head.text, "")
        for name in ("Content-Length", "Content-Type", "ETag", "Link", "Allow"):
            self.assertEqual(head.headers[name], get.headers[name])

    def test_texts_come_from_the_registry_where_there_is_one(self):
        info = sandbox.ask("PATCH", SERVICE, {"Id": "x"}).json["error"]["@Message.ExtendedInfo"][0]
        self.assertEqual(info["RelatedProperties"], ["#/Id"])
        if "REDFISH_REGISTRIES" in os.environ:
            self.assertEqual(info["Message"], "The property Id is a read only property and cannot be assigned a value.")
            self.assertIn("Remove the property", info["Resolution"])
        else:
            self.assertEqual(info["Message"], "PropertyNotWritable: Id.")


class Life(unittest.TestCase):
    def test_a_session_lasts_until_it_is_deleted(self):
        created = sandbox.ask("POST", SESSIONS, LOGIN, {"Authorization": None}, secure=True)
        uri = created.headers["Location"]
        token = {"X-Auth-Token": created.headers["X-Auth-Token"], "Authorization": None}
        self.assertIn({"@odata.id": uri}, sandbox.ask("GET", SESSIONS, headers=token).json["Members"])
        self.assertEqual(sandbox.ask("DELETE", uri, headers=token).status, 204)
        self.assertEqual(sandbox.ask("GET", SERVICE, headers=token).status, 401)
        self.assertEqual(sandbox.ask("GET", uri).status, 404)

    def test_conditional_changes_of_many_clients_lose_none(self):
        uri = sandbox.ask("POST", COLLECTION, SUBSCRIPTION | {"Context": "0"}).headers["Location"]

        def count(_):
            while True:
                read = sandbox.ask("GET", uri)
                body = {"Context": str(int(read.json["Context"]) + 1)}
                if sandbox.ask("PATCH", uri, body, {"If-Match": read.headers["ETag"]}).status == 200:
                    return

        with concurrent.futures.ThreadPoolExecutor(6) as clients:
            list(clients.map(count, range(30)))
        self.assertEqual(sandbox.ask("GET", uri).json["Context"], "30")
        sandbox.ask("DELETE", uri)

    def test_every_resource_is_found_described_and_valid(self):
        """Follows every link from the service root, as a validator does."""
        subscription = SUBSCRIPTION | {"OriginResources": [{"@odata.id": SERVICE}], "HttpHeaders": [{"A": "b"}]}
        created = [sandbox.ask("POST", uri, body).headers["Location"]
                   for uri, body in ((COLLECTION, subscription), (SESSIONS, LOGIN))]
        metadata = xml.etree.ElementTree.fromstring(sandbox.ask("GET", "/redfish/v1/$metadata").text)
        namespaces = {element.get("Namespace") for element in metadata.iter() if element.tag.endswith("}Include")}
        services = sandbox.ask("GET", "/redfish/v1/odata").json["value"]
        found, left = set(), {"/redfish/v1/"} | {service["url"] for service in services}
        while left:
            path = left.pop()
            answer = sandbox.ask("GET", path)
            self.assertEqual(answer.status, 200, path)
            found.add(path)
            document = answer.json
            left |= set(re.findall(r'"@odata.id": "([^"]*)"', answer.text)) - found
            namespace, definition = document["@odata.type"][1:].rsplit(".", 1)
            self.assertEqual(document["@odata.id"], path)
            self.assertTrue(document["Name"] and (document.get("Id") or "Members" in document))
            self.assertEqual(answer.headers["Link"],
                             f"<http://redfish.dmtf.org/schemas/v1/{namespace}.json>; rel=describedby")
            self.assertEqual(document["@odata.context"], f"/redfish/v1/$metadata#{definition}.{definition}")
            self.assertIn(namespace, namespaces)
            self.assertEqual(validate(document, namespace, definition), "", path)
            for name in [name for name in document if name.endswith("@odata.count")]:
                self.assertEqual(document[name], len(document[name.removesuffix("@odata.count")]), name)
            for action in document.get("Actions", {}).values():
                self.assertEqual(sandbox.ask("GET", action["target"]).headers["Allow"], "POST")
        self.assertLessEqual({SERVICE, COLLECTION, SESSIONS, *created}, found)
        refusal = sandbox.ask("PATCH", SERVICE, {"Id": "x", "Colour": "red"}).json
        self.assertEqual(validate(refusal, "redfish-error.v1_0_1", "RedfishError"), "")
        for uri in created:
            sandbox.ask("DELETE", uri)


class Streams(unittest.TestCase):
    def test_a_stream_carries_its_events_and_ends_with_its_subscription(self):
        query = "(RegistryPrefix eq 'Base' or RegistryPrefix eq 'ResourceEvent') and " \
                "OriginResource eq '/redfish/v1/Chassis/1'"
        stream = Stream(self, "?$filter=" + urllib.parse.quote(query), secure=True)
        member = sandbox.ask("GET", stream.uri).json
        self.assertEqual((member["SubscriptionType"], member["RegistryPrefixes"]), ("SSE", ["Base", "ResourceEvent"]))
        self.assertEqual(member["OriginResources"], [{"@odata.id": "/redfish/v1/Chassis/1"}])
        self.assertRegex(member["Destination"], r"^redfish-sse://127\.0\.0\.1:\d+$")
        event = {"MessageId": "Base.1.12.Success", "Message": "a\nb", "OriginOfCondition": "/redfish/v1/Chassis/1"}
        sandbox.redis("hset", "/redfish/v1/Chassis/1", "@odata.type", '"#Chassis.v1_14_0.Chassis"')
        numbers = [str(number) for number in range(12)]
        for number in numbers:
            self.assertEqual(sandbox.ask("POST", TEST_EVENT, event | {"EventId": number}).status, 200)
        seen = dict(stream.event() for _ in numbers)
        self.assertEqual([document["Events"][0]["EventId"] for document in seen.values()], numbers)
        for identifier, document in seen.items():
            self.assertEqual((document["Id"], document["Context"]), (identifier, member["Context"]))
            self.assertEqual(document["Events"][0]["Message"], "a\nb")
        self.assertEqual(validate(document, "Event.v1_7_0", "Event"), "")
        stream.publish("{broken")
        self.assertEqual(sandbox.ask("DELETE", stream.uri).status, 204)
        self.assertEqual(stream.event()[1]["Events"][0]["MessageId"], "Base.1.12.SubscriptionTerminated")
        self.assertEqual(stream.response.headers["Connection"], "close")
        self.assertIsNone(stream.event())

    def test_a_client_that_does_not_read_is_cut_off_and_holds_up_nobody(self):
        silent, reader = Stream(self, secure=True), Stream(self)
        before = sandbox.resident_memory("redfish-gateway")
        silent.publish(json.dumps({"Id": "1", "Events": ["x" * 100000]}), 300)
        self.assertLess(sandbox.resident_memory("redfish-gateway") - before, 16 << 20)
        reader.publish('{"Id": "mine"}')
        while reader.event()[0] != "mine":
            pass
        self.assertTrue(eventually(lambda: sandbox.ask("GET", silent.uri).status == 404, 10))
        self.assertEqual(sandbox.ask("GET", reader.uri).status, 200)

    def test_a_stream_ends_however_its_subscription_does(self):
        def lose(stream):
            sandbox.redis("lrem", f"&&{COLLECTION}/Members", "0", f"&&ObjectRef &&{stream.uri}")

        self.addCleanup(sandbox.ask, "PATCH", SERVICE, {"ServiceEnabled": True})
        for end in (lambda stream: sandbox.ask("PATCH", SERVICE, {"ServiceEnabled": False}), lose):
            sandbox.ask("PATCH", SERVICE, {"ServiceEnabled": True})
            stream = Stream(self)
            end(stream)
            while stream.event():
                pass
        sandbox.ask("PATCH", SERVICE, {"ServiceEnabled": False})
        self.assertEqual(Stream(self).response.status, 503)

    def test_a_subscription_ends_with_its_stream(self):
        streams = [Stream(self) for _ in range(10)] + [Stream(self, secure=True)]
        for stream in streams:
            stream.close()
        for stream in streams:
            self.assertTrue(eventually(lambda uri=stream.uri: sandbox.ask("GET", uri).status == 404, 5))

    def test_a_gateway_that_was_killed_leaves_no_subscription(self):
        stream = Stream(self)
        no_request_is_left(self)  # what it is killed over would stay
        sandbox.send_signal("redfish-gateway", signal.SIGKILL)
        sandbox.start_gateway()
        self.assertTrue(eventually(lambda: sandbox.ask("GET", stream.uri).status == 404, 5))


class Sturdiness(unittest.TestCase):
    def serves(self):
        return sandbox.ask("GET", SERVICE).status == 200 and sandbox.ask("GET", SERVICE, secure=True).status == 200

    def test_what_is_no_http_is_refused_and_the_rest_served_on(self):
        patch = b"PATCH /redfish/v1/EventService HTTP/1.1\r\nHost: x\r\n"
        for raw, status in (
            (b"\0" * 5000, b""), (b"GET\r\n\r\n", b""), (b"A" * 100000, b""), (b"\x16\x03\x01\x02\x00", b""),
            (b"GET / HTTP/9.9\r\n\r\n", b"505"),
            (b"GET /redfish HTTP/1.1\r\n\r\n", b"400"), (b"GET /redfish HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", b"400"),
            (b"GET / HTTP/1.1\r\n" + b"X: y\r\n" * 20000 + b"\r\n", b""),
            (patch + b"Content-Length: -5\r\n\r\n", b""),
            (patch + b"Content-Length: 2\r\nContent-Length: 4\r\n\r\n{}{}", b"400"),
            (patch + b"Transfer-Encoding: chunked\r\n\r\nzz\r\n", b""),
        ):
            # Those without a status may be answered or not.
            answer = b""
            with socket.create_connection(("127.0.0.1", sandbox.port), 10 if status else 0.2) as connection:
                with contextlib.suppress(OSError):
                    connection.sendall(raw)
                    connection.shutdown(socket.SHUT_WR)
                    answer = connection.recv(64)
            self.assertTrue((answer == b"" and not status) or answer.startswith(b"HTTP/1.1 " + status), answer)
        self.assertTrue(self.serves())

    def test_a_thousand_idle_connections_and_half_requests_hold_up_nobody(self):
        with contextlib.ExitStack() as stack:
            for number in range(1000):
                port = sandbox.secure_port if number % 2 else sandbox.port
                connection = stack.enter_context(socket.create_connection(("127.0.0.1", port), 10))
                if number % 3 == 0:
                    connection.sendall(b"PATCH /redfish/v1/EventService HTTP/1.1\r\nHost: x\r\nContent-Le")
            begin = time.monotonic()
            self.assertTrue(self.serves())
            self.assertLess(time.monotonic() - begin, 2)

    def test_without_its_daemon_it_answers_503_and_recovers(self):
        sandbox.send_signal("EventService", signal.SIGSTOP)
        refused = sandbox.ask("PATCH", SERVICE, {"DeliveryRetryAttempts": 9})
        sandbox.send_signal("EventService", signal.SIGCONT)
        self.assertEqual((refused.status, refused.headers["Retry-After"]), (503, "5"))
        self.assertEqual(refused.message_ids, ["ServiceTemporarilyUnavailable"])
        # What the client was told did not happen has not happened.
        self.assertNotEqual(sandbox.ask("GET", SERVICE).json["DeliveryRetryAttempts"], 9)

        sandbox.send_signal("EventService", signal.SIGKILL)
        self.assertEqual(sandbox.ask("PATCH", SERVICE, {"DeliveryRetryAttempts": 4}).status, 503)
        self.assertEqual(sandbox.ask("GET", SERVICE).status, 200)
        sandbox.start_daemon()
        self.assertEqual(sandbox.ask("PATCH", SERVICE, {"DeliveryRetryAttempts": 4}).status, 200)
        no_request_is_left(self)

    def test_without_redis_it_answers_503_and_recovers(self):
        stream = Stream(self)
        sandbox.send_signal("redis-server", signal.SIGSTOP)
        self.assertEqual(sandbox.ask("GET", SERVICE).status, 503)
        sandbox.send_signal("redis-server", signal.SIGCONT)
        self.assertTrue(eventually(self.serves))

        for name in ("EventService", "redis-server"):
            sandbox.send_signal(name, signal.SIGKILL)
        self.assertEqual(sandbox.ask("GET", SERVICE).status, 503)
        self.assertEqual(sandbox.ask("GET", "/redfish/v1/").status, 200)
        sandbox.start_redis()
        self.assertEqual(sandbox.ask("GET", SERVICE).status, 503, "the daemon is not ready")
        sandbox.start_daemon()
        self.assertTrue(eventually(self.serves))
        while stream.event():  # up to its end, with the subscription that Redis has lost
            pass


class Listening(unittest.TestCase):
    def setUp(self):
        text = sandbox.settings.read_text()
        self.common = re.sub("(HTTPS?_|PASSWORD).*", "", text)
        self.addCleanup(sandbox.start_gateway)
        self.addCleanup(sandbox.settings.write_text, text)
        sandbox.send_signal("redfish-gateway", signal.SIGTERM)

    def test_what_it_must_not_serve_it_refuses(self):
        for settings, line in (
            ("", "names no address to listen on"),
            ("HTTP_ADDRESS=localhost\nHTTP_PORT=8000", "localhost is no address"),
            ("HTTP_ADDRESS=127.0.0.1\nHTTP_PORT=70000", "no number from 1 to 65535"),
            ("PASSWORD=own\nHTTP_ADDRESS=0.0.0.0\nHTTP_PORT=8000", "Beyond loopback only HTTPS"),
            ("HTTPS_ADDRESS=::\nHTTPS_PORT=8443", "set a PASSWORD of your own"),
        ):
            sandbox.settings.write_text(self.common + settings + "\n")
            self.assertEqual(sandbox.start("redfish-gateway").wait(10), 1, settings)
            self.assertIn(line, sandbox.logged())

    def test_ip_version_6_and_with_a_password_beyond_loopback(self):
        sandbox.settings.write_text(
            f"{self.common}PASSWORD=own\nHTTP_ADDRESS=::1\nHTTP_PORT={sandbox.port}\n"
            f"HTTPS_ADDRESS=0.0.0.0\nHTTPS_PORT={sandbox.secure_port}\n"
        )
        self.addCleanup(sandbox.send_signal, "redfish-gateway", signal.SIGTERM)
        self.addCleanup(vars(sandbox).update, host="127.0.0.1", password=PASSWORD)
        vars(sandbox).update(host="::1", password="own")
        sandbox.start_gateway()
        session = sandbox.ask("POST", SESSIONS, LOGIN | {"Password": "own"}).json
        self.assertEqual(session["ClientOriginIPAddress"], "::1")
        self.assertEqual(sandbox.ask("GET", SERVICE, secure=True).status, 200)
        sandbox.password = PASSWORD
        self.assertEqual(sandbox.ask("GET", SERVICE, secure=True).status, 401)


class Clients(unittest.TestCase):
    """Clients that others have written."""

    def test_sushy_reads_and_subscribes(self):
        import sushy

        for authentication in (sushy.auth.BasicAuth(USER, PASSWORD), sushy.auth.SessionAuth(USER, PASSWORD)):
            root = sushy.Sushy(sandbox.address + "/redfish/v1/", auth=authentication, verify=False)
            self.assertEqual(root.redfish_version, "1.8.1")
            self.assertTrue(root.get_session_service().service_enabled)
            service = root.get_event_service()
            self.assertTrue(service.service_enabled)
            member = service.subscriptions.create(SUBSCRIPTION | {"EventTypes": ["Alert"]})
            self.assertEqual((member.context, member.event_types), ("rack 7", ["Alert"]))
            event = ("7", "2024-05-01T13:45:10Z", "Alert", "hot", [], "Base.1.12.Success", SERVICE, "OK")
            service.submit_test_event(*event)
            member.delete()
            self.assertEqual(service.subscriptions.get_members(), [])

    def test_redfishtool_goes_the_whole_road(self):
        def tool(*words):
            access = ["-r", f"127.0.0.1:{sandbox.port}", "-u", USER, "-p", PASSWORD, "-S", "Never"]
            return subprocess.check_output(["redfishtool", *access, *words], text=True)

        self.assertIn("EventService", tool("root"))
        created = json.loads(tool("raw", "POST", COLLECTION, "-d", json.dumps(SUBSCRIPTION)))
        tool("raw", "PATCH", created["@odata.id"], "-d", '{"Context": "tool"}')
        self.assertIn('"tool"', tool("raw", "GET", created["@odata.id"]))
        tool("raw", "POST", TEST_EVENT, "-d", '{"MessageId": "Base.1.12.Success"}')
        tool("raw", "DELETE", created["@odata.id"])
        self.assertEqual(sandbox.ask("GET", created["@odata.id"]).status, 404)

    def test_the_lines_of_the_quickstart_lead_to_an_event(self):
        text = (TREE / "docs/quickstart.md").read_text()
        for usual, ours in ((8443, sandbox.secure_port), (8000, sandbox.port), (8888, free_port())):
            text = text.replace(str(usual), str(ours))
        lines = "".join(re.findall(r"```sh\n(.*?)```\n", text, re.S))
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "sandbox").symlink_to(sandbox.root)
            pathlib.Path(folder, "share").symlink_to(TREE / "share")
            command = ["bash", "-euo", "pipefail", "-c", lines]
            run = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=120)
            listened, streamed = (pathlib.Path(folder, name).read_text() for name in ("listener.log", "stream.log"))
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        self.assertIn(f"ResourceEvent.1.2.ResourceChanged {SERVICE} (Context: my first subscription)", listened)
        self.assertIn("Base.1.12.SubscriptionTerminated", listened)
        self.assertIn("hello", streamed)


if __name__ == "__main__":
    BINARIES = sys.argv.pop(1)
    unittest.main(verbosity=2)
