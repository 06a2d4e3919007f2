#!/usr/bin/python3
"""The whole road of events in a sandbox: what arrives at a listener of ours, how often, in which order, and what becomes
of destinations that take nothing.

Usage: event_delivery_test.py BINARIES [unittest options]
"""

import http.server
import json
import signal
import ssl
import sys
import threading
import time
import unittest

from sandbox import COLLECTION, SERVICE, TEST_EVENT, Sandbox, eventually, validate

CHASSIS = "/redfish/v1/Chassis"
QUEUES = [f"&&{SERVICE}/EVENTQ{part}" for part in ("", "/TAKEN", "/OWED")]


requests = []  # (path, mode, headers, document), of every destination
modes = {}  # path -> "fail" (status 500) or "hang" (no answer); all others are taken


class Destination(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_POST(self):
        document = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        mode = modes.get(self.path, "take")
        requests.append((self.path, mode, self.headers, document))
        if mode == "hang":
            time.sleep(60)
        self.send_response(500 if mode == "fail" else 200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


def listen(scheme, host, certificates):
    """The address of a listener; the certificate is for 127.0.0.1 and not for 127.0.0.2."""
    server = http.server.ThreadingHTTPServer((host, 0), Destination)
    server.daemon_threads = True
    if scheme == "https":
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(certificates / "certificate.pem", certificates / "key.pem")
        server.socket = tls.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return f"{scheme}://{host}:{server.server_port}"


def sent(path, mode="take"):
    return [(headers, document) for to, how, headers, document in requests if (to, how) == (path, mode)]


def ids(path, mode="take"):
    """The EventIds of test events, the message names of all others, in order and joined by blanks."""
    records = [record for _, document in sent(path, mode) for record in document["Events"]]
    return " ".join(record["EventId"] if record["EventType"] == "Alert" else record["MessageId"].rsplit(".", 1)[1]
                    for record in records)


def setUpModule():
    global sandbox, PLAIN, TLS, OTHER_HOST
    certificates = "/etc/certs/redfish-gateway"
    sandbox = Sandbox(BINARIES, f"DeliveryTimeoutSeconds=1\nDeliveryCaFile=@ROOT@{certificates}/certificate.pem\n")
    PLAIN, TLS, OTHER_HOST = (listen(*address, sandbox.root / certificates[1:]) for address in (
        ("http", "127.0.0.1"), ("https", "127.0.0.1"), ("https", "127.0.0.2")))
    sandbox.ask("PATCH", SERVICE, {"DeliveryRetryAttempts": 1, "DeliveryRetryIntervalSeconds": 0})


def tearDownModule():
    sandbox.stop()


class EventDelivery(unittest.TestCase):
    def setUp(self):
        requests.clear()
        modes.clear()

    def tearDown(self):
        for member in sandbox.ask("GET", COLLECTION).json["Members"]:
            sandbox.ask("DELETE", member["@odata.id"])
        self.assertTrue(eventually(self.nothing_is_owed))

    def nothing_is_owed(self):
        return sandbox.redis("exists", *QUEUES) == "0"

    def subscribe(self, path, address=None, **more):
        """A subscription to test events, unless `more` has other filters."""
        body = {"Destination": (address or PLAIN) + path, "Protocol": "Redfish", "EventTypes": ["Alert"]} | more
        answer = sandbox.ask("POST", COLLECTION, {name: value for name, value in body.items() if value is not None})
        self.assertEqual(answer.status, 201, answer.text)
        return answer.headers["Location"]

    def submit(self, event_id, **more):
        body = {"MessageId": "ResourceEvent.1.2.ResourceChanged", "EventId": event_id, "EventType": "Alert"} | more
        self.assertEqual(sandbox.ask("POST", TEST_EVENT, body).status, 200)

    def arrives(self, path, expected):
        self.assertTrue(eventually(lambda: ids(path) == expected), f"{path}: {ids(path)}")

    def test_each_kind_of_event_arrives_once_in_order_with_its_headers(self):
        headers = [{"X-Token": "header-secret"}, {"Content-Type": "application/x", "X-None": ""}]
        uri = self.subscribe("/all", TLS, EventTypes=None, Context="rack 7", HttpHeaders=headers)
        self.subscribe("/verified", TLS, VerifyCertificate=True)
        other = self.subscribe("/other", IncludeOriginOfCondition=True)
        self.subscribe("/unverified", OTHER_HOST)
        self.subscribe("/refused", OTHER_HOST, VerifyCertificate=True, DeliveryRetryPolicy="RetryForever")
        for number in range(12):
            self.submit(str(number), OriginOfCondition=other)
        tests = " ".join(map(str, range(12)))
        created = "ResourceCreated ResourceChanged " * 5  # a member and, with it, the collection
        self.arrives("/all", created + tests)
        self.assertEqual(sandbox.ask("DELETE", uri).status, 204)
        self.arrives("/all", created + tests + " SubscriptionTerminated")
        for path in ("/verified", "/other", "/unverified"):
            self.arrives(path, tests)
        all_sent = sent("/all")
        for own, document in (all_sent[0], *all_sent[-2:]):  # the last of a subscription that is gone
            self.assertEqual((own["X-Token"], own["X-None"], own["Content-Type"]), ("header-secret", "", "application/x"))
            self.assertEqual(document["Context"], "rack 7")
            self.assertEqual(validate(document, "Event.v1_7_0", "Event"), "")
        origins = {path: sent(path)[0][1]["Events"][0]["OriginOfCondition"] for path in ("/verified", "/other")}
        self.assertEqual(origins["/verified"], {"@odata.id": other})
        self.assertEqual((origins["/other"]["Protocol"], origins["/other"]["HttpHeaders"]), ("Redfish", []))
        self.assertEqual(ids("/refused"), "")
        self.assertIn("SSL", sandbox.logged())
        self.assertNotIn("header-secret", sandbox.logged())

    def test_the_index_and_the_filters_decide_who_gets_an_event(self):
        origins = {"OriginResources": [{"@odata.id": CHASSIS}]}
        rows = (
            ("/unfiltered", {}, "below chassis itself none base"),
            ("/exact", origins, "itself"),
            ("/subordinates", origins | {"SubordinateResources": True}, "below chassis itself"),
            ("/prefix", {"RegistryPrefixes": ["Base"]}, "base"),
            ("/type", {"ResourceTypes": ["Chassis"]}, "chassis"),
        )
        for path, type_ in ((CHASSIS, "#ChassisCollection.ChassisCollection"),
                            (CHASSIS + "/1", "#Chassis.v1_14_0.Chassis"),
                            (CHASSIS + "/1/Sensors/2", "#Sensor.v1_0_0.Sensor")):
            sandbox.redis("hset", path, "@odata.type", f'"{type_}"')
        for path, filters, _ in rows:
            self.subscribe(path, **filters)
        self.submit("below", OriginOfCondition=CHASSIS + "/1/Sensors/2")
        self.submit("chassis", OriginOfCondition=CHASSIS + "/1")
        self.submit("itself", OriginOfCondition=CHASSIS)
        self.submit("none")
        self.submit("base", MessageId="Base.1.12.Success")
        for path, _, expected in rows:
            self.arrives(path, expected)

    def test_destinations_that_fail_hang_and_come_back_hold_up_nobody_and_miss_nothing(self):
        modes.update({"/fails": "fail", "/hangs": "hang"})
        self.subscribe("/fails", DeliveryRetryPolicy="RetryForever")
        self.subscribe("/hangs", DeliveryRetryPolicy="RetryForeverWithBackoff")
        takes = self.subscribe("/takes")
        for number in "123":
            self.submit(number)
        self.arrives("/takes", "1 2 3")
        self.assertTrue(eventually(lambda: sent("/fails", "fail") and sent("/hangs", "hang")))
        self.assertEqual(ids("/fails") + ids("/hangs"), "")

        # Killed before it has noted that an event has arrived, it would send that one again.
        self.assertTrue(eventually(lambda: takes not in sandbox.redis("hkeys", QUEUES[2])))
        # What is owed outlives the program, however it ends, connections that break, and a Redis that has forgotten
        # everything.
        sandbox.send_signal("event-delivery", signal.SIGKILL)
        self.submit("4")
        sandbox.start("event-delivery")
        self.arrives("/takes", "1 2 3 4")
        for breaks in (lambda: None, lambda: sandbox.redis("client", "kill", "type", "normal")):
            breaks()
            sandbox.send_signal("EventService", signal.SIGKILL)
            sandbox.fill_redis()
            sandbox.start_daemon()
        modes.clear()
        for path in ("/fails", "/hangs", "/takes"):
            self.arrives(path, "1 2 3 4")
        self.assertTrue(eventually(self.nothing_is_owed))
        # Said once by each of the two runs.
        self.assertEqual(sandbox.logged().count("metric reports, heartbeats, SNMP, SMTP and syslog are left"), 2)

    def test_after_the_last_retry_a_subscription_is_suspended_or_deleted(self):
        paths = "/suspended", "/deleted", "/short"
        modes.update({path: "fail" for path in paths})
        suspended = self.subscribe("/suspended", DeliveryRetryPolicy="SuspendRetries")
        deleted = self.subscribe("/deleted", DeliveryRetryPolicy="TerminateAfterRetries")
        short = self.subscribe("/short", DeliveryRetryPolicy="TerminateAfterRetries", Id="short")
        for number in "12":
            self.submit(number)
        state = lambda uri: sandbox.ask("GET", uri).json.get("Status", {}).get("State")
        self.assertTrue(eventually(lambda: [state(uri) for uri in (suspended, short, deleted)] ==
                                   ["Disabled", "Disabled", None]))
        self.assertTrue(eventually(self.nothing_is_owed))
        self.assertEqual(ids("/suspended", "fail"), "1 1", "sent again once, then nothing more")
        self.assertRegex(ids("/deleted", "fail"), "^1 1 .*SubscriptionTerminated$")
        modes.clear()
        self.assertEqual(sandbox.ask("POST", suspended + "/Actions/EventDestination.ResumeSubscription").status, 200)
        self.submit("3")
        self.arrives("/suspended", "3")

    def test_a_disabled_service_sends_nothing_and_owes_nothing(self):
        self.subscribe("/any", EventTypes=None)
        self.arrives("/any", "ResourceCreated ResourceChanged")
        self.addCleanup(sandbox.ask, "PATCH", SERVICE, {"ServiceEnabled": True})
        sandbox.ask("PATCH", SERVICE, {"ServiceEnabled": False})
        self.assertTrue(eventually(self.nothing_is_owed))
        self.arrives("/any", "ResourceCreated ResourceChanged")


if __name__ == "__main__":
    BINARIES = sys.argv.pop(1)
    unittest.main(verbosity=2)
