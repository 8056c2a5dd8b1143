"""End-to-end test of the example server.

    smoke_test.py test_NAME -- SERVER [ARGUMENT...]

runs one test with a server of its own, on a free port, and demands after it that the server is
still answering, ends on SIGTERM with status 0, leaves no connection open and has written nothing
to standard error but of runs that the machine held up. Without a name all tests run.
"""

import contextlib
import http.client
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

COMMAND = []
LIMIT_S = 30  # no wait is longer; a healthy run needs a fraction of it
PORT_LINE = re.compile(r"listening on 127\.0\.0\.1:(\d+)\n")
# What the library says, rightly, of a callback that a busy machine has held up for 400 ms.
SLOW_RUN = re.compile(r"^.* (?:Proc time timeout|fd:\d+, procFunc:.*, procTime:\d{6,}, eventLeft:)"
                      r".*\n", re.MULTILINE)
LAST_LINE = re.compile(r"served (\d+) requests on (\d+) connections, (\d+) left open\n")


def bulk_body(size):
    """The letters of /bulk/N."""
    state, out = 0, bytearray()
    for _ in range(size):
        state = (state * 6364136223846793005 + 1442695040888963407) % (1 << 64)
        out.append(ord("a") + (state >> 33) % 26)
    return bytes(out)


class Running:
    """A server process; its standard error is collected by a thread so that it never blocks."""

    def __init__(self, *options, nofile=None):
        prefix = ["sh", "-c", f'ulimit -n {nofile}; exec "$@"', "sh"] if nofile else []
        self.process = subprocess.Popen(
            prefix + COMMAND + list(options), text=True,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.errors = []
        self.reader = threading.Thread(
            target=lambda: self.errors.append(self.process.stderr.read()))
        self.reader.start()
        self.first = self.process.stdout.readline()
        match = PORT_LINE.fullmatch(self.first)
        self.port = int(match.group(1)) if match else 0

    def stop(self, number=signal.SIGTERM):
        """Status, standard output after the first line, standard error."""
        self.process.send_signal(number)
        status = self.process.wait(LIMIT_S)
        self.reader.join()
        out = self.process.stdout.read()
        self.process.stdout.close()
        self.process.stderr.close()
        return status, out, self.errors[0]

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.reader.join()


class HttpServer(unittest.TestCase):
    def start(self, *options, nofile=None):
        self.server = Running(*options, nofile=nofile)
        self.addCleanup(self.server.kill)
        if self.server.port == 0:
            self.server.kill()
            self.fail(f"it does not say where it listens: {self.server.first}"
                      f"{self.server.errors}")

    def finish(self, number=signal.SIGTERM):
        """Stops a server that must be healthy; (requests, connections) of its last line."""
        self.assertEqual(self.get("/admin/health"), (200, b"ok\n"))
        status, out, errors = self.server.stop(number)
        self.assertEqual((status, SLOW_RUN.sub("", errors)), (0, ""))
        match = LAST_LINE.fullmatch(out)
        self.assertIsNotNone(match, out)
        self.assertEqual(match.group(3), "0")
        return int(match.group(1)), int(match.group(2))

    def http(self):
        client = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=LIMIT_S)
        return contextlib.closing(client)

    def raw(self):
        return socket.create_connection(("127.0.0.1", self.server.port), timeout=LIMIT_S)

    def get(self, path, method="GET", **how):
        with self.http() as client:
            client.request(method, path, **how)
            answer = client.getresponse()
            return answer.status, answer.read()

    def exchange(self, data):
        """Sends data on a connection of its own; everything that comes until the server closes."""
        with self.raw() as client:
            client.sendall(data)
            return self.read_all(client)

    def read_all(self, client):
        """Everything until the server closes."""
        parts = []
        while part := client.recv(65536):
            parts.append(part)
        return b"".join(parts)

    @contextlib.contextmanager
    def held(self):
        """The server stands still meanwhile."""
        self.server.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.server.process.pid, os.WSTOPPED | os.WNOWAIT)
        try:
            yield
        finally:
            self.server.process.send_signal(signal.SIGCONT)

    def assert_refused(self, status, answer):
        self.assertTrue(answer.startswith(b"HTTP/1.1 %d " % status), answer[:200])
        self.assertIn(b"Connection: close\r\n", answer)

    # Answers

    def test_OneConnectionCarriesManyRequests(self):
        self.start()
        with self.http() as client:
            client.connect()
            first = client.sock
            for path, status in (("/", 200), ("/bulk/1000", 200), ("/nothing", 404),
                                 ("/admin/health", 200), ("/bulk/0", 200), ("/", 200)):
                client.request("GET", path)
                answer = client.getresponse()
                answer.read()
                self.assertEqual(answer.status, status, path)
                self.assertIs(client.sock, first)
        self.assertEqual(self.finish(), (7, 2))

    def test_HeadGetsTheLengthWithoutTheBody(self):
        self.start()
        with self.http() as client:
            client.request("HEAD", "/bulk/5000")
            answer = client.getresponse()
            self.assertEqual((answer.status, answer.getheader("Content-Length")), (200, "5000"))
            self.assertEqual(answer.read(), b"")
            client.request("GET", "/")
            self.assertIn(b"scheduled task", client.getresponse().read())
        self.finish()

    def test_BulkBodiesArriveWhole(self):
        self.start()
        self.assertEqual(self.get("/bulk/1"), (200, bulk_body(1)))
        self.assertEqual(self.get("/bulk/100000"), (200, bulk_body(100000)))
        status, body = self.get("/bulk/1048576")
        self.assertEqual((status, len(body), body[:100000]), (200, 1048576, bulk_body(100000)))
        for bad in ("/bulk/1048577", "/bulk/", "/bulk/-1", "/bulk/1x", "/bulk/99999999999"):
            self.assertEqual(self.get(bad)[0], 404, bad)
        self.finish()

    def test_PipelinedRequestsAreAnsweredInOrder(self):
        self.start()
        paths = ["/bulk/%d" % size for size in range(40000, 40005)] + ["/", "/admin/health"] * 10
        wire = b"".join(b"GET %s HTTP/1.1\r\nHost: x\r\n\r\n" % p.encode() for p in paths)
        with self.raw() as client:
            client.sendall(wire)
            client.shutdown(socket.SHUT_WR)
            answer = self.read_all(client)
        lengths = [int(n) for n in re.findall(rb"Content-Length: (\d+)\r\n", answer)]
        self.assertEqual(lengths[:5], list(range(40000, 40005)))
        self.assertEqual(lengths[6::2], [3] * 10)
        self.assertEqual(answer.count(b"HTTP/1.1 200 OK\r\n"), len(paths))
        self.assertTrue(answer.endswith(b"\r\n\r\nok\n"))
        self.assertEqual(self.finish(), (len(paths) + 1, 2))

    def test_ARequestMayArriveByteByByte(self):
        self.start()
        request = b"GET /bulk/10 HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
        with self.raw() as client:
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for i in range(len(request)):
                client.sendall(request[i:i + 1])
            answer = self.read_all(client)
        self.assertTrue(answer.endswith(b"\r\n\r\n" + bulk_body(10)), answer)
        self.finish()

    def test_OldClientsAreClosedUnlessTheyAskToStay(self):
        self.start()
        self.assert_old(b"GET / HTTP/1.0\r\n\r\n", 1)
        self.assert_old(b"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"
                        b"GET / HTTP/1.0\r\n\r\n", 2)
        self.finish()

    def assert_old(self, data, count):
        self.assertEqual(self.exchange(data).count(b"HTTP/1.0 200 OK\r\n"), count)

    def test_OtherMethodsAreRefusedAndTheConnectionStays(self):
        self.start()
        with self.http() as client:
            for method in ("POST", "PUT", "DELETE", "OPTIONS"):
                client.request(method, "/", body=b"x" * 60000)
                answer = client.getresponse()
                answer.read()
                self.assertEqual((answer.status, answer.getheader("Allow")), (405, "GET, HEAD"))
            client.request("GET", "/")
            self.assertEqual(client.getresponse().status, 200)
        self.finish()

    def test_AClientThatExpectsAnInterimAnswerGetsIt(self):
        self.start()
        with self.raw() as client:
            client.sendall(b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n"
                           b"Expect: 100-continue\r\nConnection: close\r\n\r\n")
            self.assertEqual(client.recv(100), b"HTTP/1.1 100 Continue\r\n\r\n")
            client.sendall(b"ab")
            self.assertTrue(self.read_all(client).startswith(b"HTTP/1.1 405 "))
        self.assertEqual(self.finish(), (2, 2))

    def test_StatsTellEachKindOfTask(self):
        self.start()
        with self.http() as client:
            for path in ["/"] * 5 + ["/bulk/50000", "/admin/health", "/admin/health"]:
                client.request("GET", path)
                client.getresponse().read()
            client.request("GET", "/stats?format=json")
            stats = json.loads(client.getresponse().read())
        runs = {row["name"]: row["runs"] for row in stats["tasks"]}
        # A request that changes the kind is parsed in a run of the old kind and answered in a run
        # of the new one. A large body takes a run for each 16 KiB. The run that makes this answer
        # has not ended.
        self.assertEqual(runs["listener"], 1)
        self.assertGreaterEqual(runs["http"], 6)
        self.assertGreaterEqual(runs["bulk"], 4)
        self.assertGreaterEqual(runs["admin"], 2)
        # listener, signals, sweep and this connection
        self.assertEqual((stats["liveTasks"], stats["open"], stats["accepted"]), (4, 1, 1))
        self.assertEqual((stats["requests"], stats["errors"]), (8, []))
        status, text = self.get("/stats")
        self.assertEqual(status, 200)
        for word in (b"connections: 1 open", b"errors: none", b"listener", b"bulk"):
            self.assertIn(word, text)
        self.finish()

    # Refusals

    def test_MalformedRequestsAreRefused(self):
        self.start()
        for data in (b"NONSENSE\r\n\r\n", b"GET / HTTP/9.9\r\n\r\n", b"\x00\x01\x02\r\n\r\n",
                     b"GET / HTTP/1.1\r\nHost: x\r\nno colon\r\n\r\n",
                     b"GET / HTTP/1.1\r\n\r\n",
                     b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: many\r\n\r\n",
                     b"POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"):
            self.assert_refused(400, self.exchange(data))
        self.finish()

    def test_TooLargeRequestsAreRefused(self):
        self.start()
        fields = b"GET / HTTP/1.1\r\nHost: x\r\nX-Long: " + b"x" * 9000 + b"\r\n\r\n"
        self.assert_refused(413, self.exchange(fields))
        self.assert_refused(413, self.exchange(b"GET /" + b"x" * 20000))
        start = b"POST / HTTP/1.1\r\nHost: x\r\n"
        length = start + b"Content-Length: 65537\r\n\r\n" + b"x" * 65537
        self.assert_refused(413, self.exchange(length))
        chunks = start + b"Transfer-Encoding: chunked\r\n\r\n" + (b"8000\r\n" + b"x" * 32768 +
                                                                   b"\r\n") * 3
        self.assert_refused(413, self.exchange(chunks))
        self.finish()

    def test_SlowRequestsEndWithATimeOut(self):
        self.start("--idle-ms", "500")
        with self.raw() as silent, self.raw() as slow:
            slow.sendall(b"GET / HTTP/1.1\r\nHo")
            self.assert_refused(408, self.read_all(slow))
            self.assertEqual(self.read_all(silent), b"")
        self.assertEqual(self.finish(), (2, 3))

    def test_TricklingBytesDoNotExtendTheTimeLimit(self):
        self.start("--idle-ms", "500")
        with self.raw() as slow:
            slow.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            slow.sendall(b"GET / HTTP/1.1\r\nX: ")
            sent = 0
            while sent < 1000 and not select.select([slow], [], [], 0.02)[0]:
                slow.sendall(b"x")
                sent += 1
            self.assertLess(sent, 1000)
            self.assert_refused(408, self.read_all(slow))
        self.finish()

    def test_AClientThatIsLateTwiceIsCountedOnce(self):
        self.start("--idle-ms", "500")
        with self.raw() as slow:
            slow.sendall(b"GET / HTTP/1.1\r\nHo")
            self.assert_refused(408, self.read_all(slow))
            # It does not leave, and is closed at the second limit; this look is the one left.
            self.assertEqual(self.wait_for_open(1)["timedOut"], 1)
        self.finish()

    def test_BytesThatComeTogetherWithTheTimeLimitAreNoFault(self):
        self.start("--idle-ms", "500")
        with contextlib.ExitStack() as stack:
            begun, silent, lingering = [stack.enter_context(self.raw()) for _ in range(3)]
            begun.sendall(b"GET / HTTP/1.1\r\nHo")
            lingering.sendall(b"NONSENSE\r\n\r\n")
            self.assert_refused(400, self.read_all(lingering))
            # The sweep and all the bytes meet in one wait, behind everyone's limit.
            time.sleep(0.3)
            with self.held():
                time.sleep(0.3)
                for client in (begun, silent, lingering):
                    client.sendall(b"x")
            self.assert_refused(408, self.read_all(begun))
            with contextlib.suppress(ConnectionResetError):
                self.assertEqual(self.read_all(silent), b"")
        self.finish()

    def test_AClientThatDoesNotReadIsClosed(self):
        self.start("--idle-ms", "500")
        with self.raw() as deaf:
            deaf.sendall(b"GET /bulk/1048576 HTTP/1.1\r\nHost: x\r\n\r\n" * 200)
            watch = select.poll()
            watch.register(deaf, select.POLLHUP | select.POLLERR | select.POLLRDHUP)
            self.assertTrue(watch.poll(LIMIT_S * 1000))
        self.finish()

    # Load and trouble

    def test_TooManyClientsAreTurnedAway(self):
        self.start("--max-connections", "3")
        with contextlib.ExitStack() as stack:
            inside = [stack.enter_context(self.http()) for _ in range(3)]
            for client in inside:
                client.request("GET", "/")
                self.assertEqual(client.getresponse().read()[:5], b"every")
            with self.raw() as outside:
                self.assert_refused(503, self.read_all(outside))
            for client in inside:
                client.request("GET", "/")
                self.assertEqual(client.getresponse().status, 200)
        self.wait_for_open(1)
        self.finish()

    def wait_for_open(self, count):
        """Until the server has noticed that all but count clients left; its counts then."""
        end = time.monotonic() + LIMIT_S
        while time.monotonic() < end:
            status, text = self.get("/stats?format=json")
            stats = json.loads(text) if status == 200 else {"open": None}
            if stats["open"] == count:
                return stats
        self.fail("closed connections are still counted")

    def test_WithoutDescriptorsClientsWaitInTheBacklog(self):
        request = b"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
        self.start("--idle-ms", "800", nofile=20)
        # A sanitizer that meets a type of object for the first time opens a pipe to look at it, and
        # takes the lack of descriptors for a bad object: it meets them all in this request.
        answer = self.exchange(request)
        with contextlib.ExitStack() as stack:
            # More than fit: the rest is let in as the first ones end.
            clients = [stack.enter_context(self.raw()) for _ in range(30)]
            for client in clients:
                client.sendall(request)
            for client in clients:
                self.assertEqual(self.read_all(client), answer)
                client.close()
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertEqual(self.finish(), (32, 32))

    def test_WithoutDescriptorsTheListenerRestsUntilTheNextSweep(self):
        self.start("--idle-ms", "800", nofile=20)
        with self.http() as inside, contextlib.ExitStack() as stack:
            first = self.stats_of(inside)
            for _ in range(30):
                stack.enter_context(self.raw())
            last = first
            while last["sweep"] < first["sweep"] + 3:
                last = self.stats_of(inside)
            # One failing run for each sweep that puts the listener back, one for each accept.
            accepted = last["accepted"]
            self.assertLess(accepted, 31)
            self.assertLessEqual(last["listener"], accepted + last["sweep"] + 1)
        self.wait_for_open(1)
        self.finish()

    def stats_of(self, client):
        """Runs by task name, and the number of accepted connections."""
        client.request("GET", "/stats?format=json")
        stats = json.loads(client.getresponse().read())
        runs = {"sweep": 0} | {row["name"]: row["runs"] for row in stats["tasks"]}
        return runs | {"accepted": stats["accepted"]}

    def test_TwoHundredClientsAtOnceAreAllServed(self):
        self.start("--idle-ms", "60000")
        request = b"GET /bulk/3000 HTTP/1.1\r\nHost: x\r\n\r\n"
        body = bulk_body(3000)
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(self.raw()) for _ in range(200)]
            for _ in range(3):
                for client in clients:
                    client.sendall(request)
                for client in clients:
                    answer = b""
                    while not answer.endswith(body):
                        part = client.recv(65536)
                        self.assertNotEqual(part, b"")
                        answer += part
            self.assertIn(b"201 open", self.get("/stats")[1])
        self.wait_for_open(1)
        requests, connections = self.finish()
        self.assertGreaterEqual(requests, 602)
        self.assertGreaterEqual(connections, 202)

    def test_ResetsInMidAnswerHurtNobodyElse(self):
        self.start()
        for _ in range(50):
            with self.raw() as client:
                client.sendall(b"GET /bulk/1048576 HTTP/1.1\r\nHost: x\r\n\r\n" * 2)
                client.recv(1)
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.wait_for_open(1)
        self.finish()

    # The end

    def test_AStopClosesWhatIsOpen(self):
        self.start()
        with self.raw() as idle, self.raw() as busy:
            busy.sendall(b"GET /bulk/1048576 HTTP/1.1\r\nHost: x\r\n\r\n" * 50)
            busy.recv(1)
            self.finish(signal.SIGINT)
            self.assertEqual(idle.recv(1), b"")

    def test_BadOptionsAreRefused(self):
        for options in (["--port"], ["--port", "x"], ["--port", "65536"], ["--what", "1"],
                        ["--idle-ms", "0"], ["--max-connections", "0"]):
            done = subprocess.run(COMMAND + options, capture_output=True, text=True, check=False)
            self.assertEqual((done.returncode, done.stdout), (2, ""), options)
            self.assertTrue(done.stderr.startswith("usage: http_server"))


if __name__ == "__main__":
    split = sys.argv.index("--")
    COMMAND = sys.argv[split + 1:]
    names = ["HttpServer." + name for name in sys.argv[1:split]]
    unittest.main(argv=[sys.argv[0]] + names, verbosity=2)
