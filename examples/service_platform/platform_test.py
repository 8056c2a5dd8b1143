"""End-to-end test of the service platform.

    platform_test.py test_NAME -- PROGRAM [ARGUMENT...]

runs one test with a process of its own. After each the table that the program prints at its end is
taken apart and added up again: nothing may be missing, and nothing may be left. Without a name all
tests run.
"""

import collections
import contextlib
import http.client
import re
import signal
import socket
import subprocess
import sys
import threading
import unittest

COMMAND = []
LIMIT_S = 30  # no wait is longer; a healthy run needs a fraction of it
PORT_LINE = re.compile(r"listening on 127\.0\.0\.1:(\d+)\n")
COLUMNS = {
    "service": ["sent", "delivered", "refused", "left", "depth", "peak"],
    "timer": ["started", "fired", "cancelled", "late", "worst us"],
    "task": ["runs", "total us", "p50 us", "p99 us", "max us"],
    "clients": ["asked", "200", "503", "504", "p50 us", "p99 us", "max us"],
}
HEADERS = {" ".join([title, *columns]): title for title, columns in COLUMNS.items()}
# What the library says, rightly, of a callback that a busy machine has held up for 400 ms.
SLOW_RUN = re.compile(r"^.* (?:(?:Eventfd|Timer) proc timeout|Proc time timeout|"
                      r"fd:\d+, procFunc:.*, procTime:\d{6,}, eventLeft:).*\n", re.MULTILINE)
ONE_SHOT = ("request", "expiry", "set aside")


class Table:
    """The numbers of the printed table: self.service["session"]["sent"], self.requests, ..."""

    def __init__(self, text):
        self.text = text
        title = None
        for line in text.splitlines():
            header = HEADERS.get(" ".join(line.split()))
            if header is not None:
                title = header
                setattr(self, title, {})
            elif not line or ":" in line:
                title = None
            elif title is not None:
                name, numbers = re.fullmatch(r"(\w+(?: \w+)?) +([\d ]+)", line).groups()
                row = zip(COLUMNS[title], map(int, numbers.split()), strict=True)
                getattr(self, title)[name] = dict(row)
        self.find(r"requests: (\d+) = (\d+) answered \(200\) \+ (\d+) refused \(503\) \+ "
                  r"(\d+) timed out \(504\) \+ (\d+) whose client left",
                  "requests answered refused timed_out gone")
        self.find(r"clients: (\d+) connections, (\d+) turned away, (\d+) malformed requests",
                  "connections turned_away malformed")
        self.find(r"answers: (\d+) posted = (\d+) used \+ (\d+) too late \+ (\d+) left behind; "
                  r"(\d+) calls dropped", "posted used late left_answers dropped")
        self.find(r"admin: (\d+) questions overtook (\d+) waiting messages on average, "
                  r"(\d+) at most", "questions mean_overtaken most_overtaken")
        self.find(r"sessions: (\d+) opened = (\d+) expired \+ (\d+) ended at the stop",
                  "opened expired ended")
        self.find(r"billing: (\d+) units; audit: (\d+) calls, (\d+) expiries; metrics: "
                  r"(\d+) samples, session waiting (\d+) at most",
                  "units audited_calls audited_expiries samples sampled")
        self.find(r"log: (\d+) lines about refused messages, (\d+) others; "
                  r"dispatch errors: (\d+)", "log_refusals log_others errors")
        self.find(r"left: (-?\d+) blocks, (-?\d+) descriptors, (-?\d+) threads, (\d+) tasks",
                  "blocks descriptors threads tasks")

    def find(self, pattern, names):
        match = re.search("^" + pattern + "$", self.text, re.MULTILINE)
        if match is None:
            raise ValueError(f"no line {pattern!r} in\n{self.text}")
        for name, number in zip(names.split(), match.groups(), strict=True):
            setattr(self, name, int(number))


class Running:
    """A platform process; its standard error is collected by a thread so that it never blocks."""

    def __init__(self, *options):
        self.process = subprocess.Popen(COMMAND + list(options), text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.errors = []
        self.reader = threading.Thread(
            target=lambda: self.errors.append(self.process.stderr.read()))
        self.reader.start()
        self.first = self.process.stdout.readline()
        match = PORT_LINE.fullmatch(self.first)
        self.port = int(match.group(1)) if match else 0

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)

    def wait(self):
        """Status, standard output after the first line, standard error."""
        out = self.process.stdout.read()
        status = self.process.wait(LIMIT_S)
        self.reader.join()
        self.process.stdout.close()
        self.process.stderr.close()
        return status, out, self.errors[0]

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.reader.join()


class ServicePlatform(unittest.TestCase):
    def start(self, *options):
        self.platform = Running(*options)
        self.addCleanup(self.platform.kill)
        if self.platform.port == 0:
            self.platform.kill()
            self.fail(f"it does not say where it listens: {self.platform.first}"
                      f"{self.platform.errors}")

    def finish(self, log=""):
        """The table of a run that has ended well. log: what standard error must look like."""
        status, out, errors = self.platform.wait()
        self.assertRegex(SLOW_RUN.sub("", errors), f"\\A{log}\\Z")
        self.assertEqual(status, 0, out)
        self.assertTrue(out.endswith("accounts: closed\n"), out)
        table = Table(out)
        self.check_accounts(table)
        return table

    def check_accounts(self, table):
        """Adds up again what the program says closes."""
        self.assertEqual(table.requests,
                         table.answered + table.refused + table.timed_out + table.gone)
        refused = 0
        for name, row in table.service.items():
            self.assertEqual(row["sent"], row["delivered"] + row["refused"] + row["left"], name)
            self.assertLessEqual(row["peak"], row["depth"], name)
            refused += row["refused"]
        self.assertEqual(list(table.service), ["session", "billing", "audit", "metrics"])
        self.assertEqual(table.log_refusals, refused)
        self.assertEqual(table.posted, table.used + table.late + table.left_answers)
        self.assertEqual(table.opened, table.expired + table.ended)
        self.check_timers(table)
        self.check_services(table)
        for left in ("left_answers", "blocks", "descriptors", "threads", "tasks"):
            self.assertEqual(getattr(table, left), 0, left)

    def check_timers(self, table):
        self.assertEqual(list(table.timer), ["request", "sample", "sweep", "expiry", "set aside"])
        for name, row in table.timer.items():
            fired = row["fired"] if name in ONE_SHOT else 0
            self.assertEqual(row["started"], row["cancelled"] + fired, name)
            self.assertLessEqual(row["late"], row["fired"], name)
        self.assertEqual(table.timer["request"]["fired"], table.timed_out)
        self.assertEqual(table.timer["expiry"]["fired"], table.expired)
        self.assertEqual(table.timer["expiry"]["started"], table.opened)
        self.assertEqual(table.timer["set aside"]["cancelled"], table.dropped)

    def check_services(self, table):
        """What the services did with what was delivered to them, and what the hooks saw of it."""
        session, billing, audit, metrics = table.service.values()
        self.assertEqual(table.units, 3 * billing["delivered"])
        self.assertEqual(table.audited_calls + table.audited_expiries, audit["delivered"])
        if audit["refused"] == 0:
            self.assertEqual(table.audited_expiries, table.expired)
        self.assertEqual(table.posted, session["delivered"] - table.dropped + table.questions)
        self.assertGreaterEqual(metrics["delivered"], table.samples)
        # Each delivered message is a run of the service's task. The scheduler threads' own tasks
        # may share a name with a service: their one run, at the end.
        for name, row in table.service.items():
            extra = table.task.get(name, {"runs": 0})["runs"] - row["delivered"]
            self.assertIn(extra, (0, 1), name)
        self.assertEqual(table.task.get("desk", {"runs": 0})["runs"], table.questions)
        self.assertEqual(table.task.get("answers", {"runs": 0})["runs"], table.posted)

    # Clients

    def raw(self, target, method="GET"):
        """A connection with one request on it."""
        client = socket.create_connection(("127.0.0.1", self.platform.port), timeout=LIMIT_S)
        client.sendall(f"{method} {target} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        return client

    def status_of(self, client):
        answer = http.client.HTTPResponse(client)
        answer.begin()
        answer.read()
        return answer.status

    def get(self, target, method="GET"):
        connection = http.client.HTTPConnection("127.0.0.1", self.platform.port, timeout=LIMIT_S)
        with contextlib.closing(connection):
            connection.request(method, target)
            answer = connection.getresponse()
            return answer.status, answer.read().decode()

    def state(self):
        """What the desk says, by name."""
        status, text = self.get("/admin/status")
        self.assertEqual(status, 200)
        return {name: int(number) for name, number in re.findall(r"^(.+) (\d+)$", text, re.M)}

    def wait_for_calls(self, count):
        """Until that many calls have reached the session service; how many questions it took."""
        for asked in range(1, 10000):
            state = self.state()
            if state["calls"] + state["waiting"] == count:
                return asked
        self.fail("the calls do not arrive")

    # The built-in load

    def test_ADemoRunClosesAllAccounts(self):
        self.start("--demo", "--seconds", "0.4", "--timeout-ms", "400")
        table = self.finish()
        self.check_clients(table)
        self.assertGreater(table.clients["bulk"]["200"], 0)
        self.assertGreater(table.clients["slow"]["504"], 0)
        self.assertEqual(table.clients["admin"]["200"], table.questions)
        self.assertGreater(table.timer["sample"]["fired"], 0)
        # The answer of a call that has timed out comes too late, or never when the stop is faster.
        self.assertEqual(table.late + table.dropped, table.timed_out)

    def test_AnOverloadedSessionRefusesAndCounts(self):
        # Slower and with less room than by default, so that a busy machine overloads it as well.
        self.start("--overload", "--seconds", "0.4", "--work-us", "20000", "--depth", "8",
                   "--timeout-ms", "1000")
        table = self.finish()
        self.check_clients(table)
        session = table.service["session"]
        self.assertGreater(session["refused"], 0)
        self.assertEqual(table.refused, session["refused"])
        self.assertEqual((session["depth"], session["left"]), (8, 0))
        # Urgent questions are answered all the same, past what waits.
        self.assertEqual(table.clients["admin"]["200"], table.clients["admin"]["asked"])
        self.assertGreater(table.most_overtaken, 0)

    def check_clients(self, table):
        for column, count in (("asked", table.requests), ("200", table.answered),
                              ("503", table.refused), ("504", table.timed_out)):
            self.assertEqual(sum(row[column] for row in table.clients.values()), count, column)
        self.assertEqual(table.gone, 0)

    # Real clients

    def test_AStopInTheMidstOfRequestsAnswersEachOnce(self):
        self.start("--work-us", "2000", "--timeout-ms", "1200", "--patience-ms", "10000",
                   "--expiry-ms", "60000")
        with contextlib.ExitStack() as stack:
            calls = [stack.enter_context(self.raw(f"/call/{i}")) for i in range(40)]
            slow = [stack.enter_context(self.raw(f"/slow/{i}")) for i in range(5)]
            questions = self.wait_for_calls(45)
            self.platform.stop()
            self.assertEqual([self.status_of(client) for client in calls], [200] * 40)
            self.assertEqual([self.status_of(client) for client in slow], [504] * 5)
        table = self.finish()
        self.assertEqual((table.requests, table.answered, table.refused, table.timed_out),
                         (45 + questions, 40 + questions, 0, 5))
        self.assertEqual(table.service["session"]["delivered"], 45)
        self.assertEqual((table.opened, table.dropped + table.late), (40, 5))

    def test_AStopWithoutPatienceRefusesAndCountsWhatItLeaves(self):
        self.start("--work-us", "100000", "--timeout-ms", "20000", "--patience-ms", "0")
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(self.raw(f"/call/{i}")) for i in range(60)]
            questions = self.wait_for_calls(60)
            self.platform.stop()
            seen = collections.Counter(self.status_of(client) for client in clients)
        # A wake-up of the queue that goes away may be on its way.
        table = self.finish(log=r"(?:.* Task (?:has damaged|get event unsuccessfully).*\n)*")
        self.assertEqual((table.answered - questions, table.refused), (seen[200], seen[503]))
        self.assertEqual(sum(seen.values()), 60)
        self.assertGreater(table.service["session"]["left"], 0)

    def test_AdministrationOvertakesWhatWaits(self):
        self.start("--work-us", "40000", "--timeout-ms", "20000")
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(self.raw(f"/call/{i}")) for i in range(40)]
            questions = self.wait_for_calls(40)
            state = self.state()
            self.assertGreater(state["waiting"], 10)
            self.assertEqual([self.status_of(client) for client in clients], [200] * 40)
        self.platform.stop()
        table = self.finish()
        self.assertEqual(table.questions, questions + 1)
        self.assertGreaterEqual(table.most_overtaken, state["waiting"])

    def test_AFullQueueRefusesWith503(self):
        self.start("--work-us", "50000", "--timeout-ms", "20000", "--depth", "4")
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(self.raw(f"/call/{i}")) for i in range(30)]
            seen = collections.Counter(self.status_of(client) for client in clients)
        self.assertEqual(sum(seen.values()), seen[200] + seen[503])
        self.assertGreaterEqual(seen[200], 4)
        self.assertGreater(seen[503], 0)
        self.platform.stop()
        table = self.finish()
        self.assertEqual((table.requests, table.answered, table.refused),
                         (30, seen[200], seen[503]))
        self.assertEqual(table.service["session"]["refused"], seen[503])
        self.assertEqual(table.service["session"]["peak"], 4)

    def test_ALateAnswerIsDroppedAfterTheTimeOut(self):
        self.start("--timeout-ms", "50")
        self.assertEqual(self.get("/slow/1")[0], 504)
        for _ in range(10000):
            if self.state()["set aside"] == 0:
                break
        self.platform.stop()
        table = self.finish()
        self.assertEqual((table.timed_out, table.late, table.dropped), (1, 1, 0))
        self.assertEqual(table.timer["set aside"]["fired"], 1)

    def test_AClientThatLeavesIsCounted(self):
        self.start("--work-us", "100000", "--timeout-ms", "20000")
        with contextlib.ExitStack() as stack:
            staying = [stack.enter_context(self.raw(f"/call/{i}")) for i in range(12)]
            self.wait_for_calls(12)
            # Behind more than a second of work, so that none is answered before it leaves.
            leaving = [stack.enter_context(self.raw(f"/call/{i}")) for i in range(12, 16)]
            self.wait_for_calls(16)
            for client in leaving:
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
                client.close()
            self.assertEqual([self.status_of(client) for client in staying], [200] * 12)
        self.platform.stop()
        table = self.finish()
        self.assertEqual(table.gone, 4)
        self.assertEqual(table.late, 4)

    def test_IdleSessionsExpire(self):
        self.start("--expiry-ms", "60", "--timeout-ms", "20000")
        for i in range(5):
            self.assertEqual(self.get(f"/call/{i}"), (200, "done\n"))
        for _ in range(10000):
            if self.state()["sessions"] == 0:
                break
        self.assertEqual(self.get("/call/1")[0], 200)
        self.platform.stop()
        table = self.finish()
        self.assertEqual(table.opened, 6)
        self.assertIn(table.expired, (5, 6))
        self.assertEqual(table.audited_calls, 6)

    def test_TooManySessionsAreRefused(self):
        self.start("--expiry-ms", "60000", "--timeout-ms", "20000")
        connection = http.client.HTTPConnection("127.0.0.1", self.platform.port, timeout=LIMIT_S)
        seen = collections.Counter()
        with contextlib.closing(connection):
            for i in range(260):
                connection.request("GET", f"/call/{i}")
                answer = connection.getresponse()
                answer.read()
                seen[answer.status] += 1
        self.assertEqual(seen, {200: 256, 503: 4})
        self.platform.stop(signal.SIGINT)
        table = self.finish()
        self.assertEqual((table.opened, table.ended, table.refused), (256, 256, 4))

    def test_IdleClientsAreClosed(self):
        self.start("--idle-ms", "400", "--timeout-ms", "20000")
        with self.raw("/call/1") as client, \
                socket.create_connection(("127.0.0.1", self.platform.port), LIMIT_S) as silent:
            self.assertEqual(self.status_of(client), 200)
            self.assertEqual(client.recv(1), b"")
            self.assertEqual(silent.recv(1), b"")
        self.platform.stop()
        self.assertEqual(self.finish().connections, 2)

    def test_WhatIsNoRequestIsRefusedAndCountedApart(self):
        self.start()
        for target in ("/", "/call/", "/call/x", "/call/1x", "/call/99999999999", "/admin/",
                       "/slow/-1"):
            self.assertEqual(self.get(target)[0], 404, target)
        self.assertEqual(self.get("/call/1", "POST")[0], 405)
        with self.raw("/call/1", "NON SENSE") as client:
            self.assertEqual(self.status_of(client), 400)
        self.platform.stop()
        table = self.finish()
        self.assertEqual((table.malformed, table.requests), (9, 0))

    def test_APipelineIsAnsweredInOrder(self):
        self.start("--timeout-ms", "20000")
        targets = ["/call/1", "/admin/status", "/nothing"] * 20
        with socket.create_connection(("127.0.0.1", self.platform.port), LIMIT_S) as client:
            client.sendall("".join(f"GET {target} HTTP/1.1\r\nHost: x\r\n\r\n"
                                   for target in targets).encode())
            client.shutdown(socket.SHUT_WR)
            answer = b""
            while part := client.recv(65536):
                answer += part
        self.assertEqual(re.findall(rb"HTTP/1.1 (\d+)", answer), [b"200", b"200", b"404"] * 20)
        self.platform.stop()
        table = self.finish()
        self.assertEqual((table.answered, table.malformed), (40, 20))

    def test_BadOptionsAreRefused(self):
        for options in (["--port"], ["--port", "65536"], ["--what", "1"], ["--seconds", "0"],
                        ["--seconds", "nan"], ["--depth", "0"], ["--demo", "--demo", "x"]):
            done = subprocess.run(COMMAND + options, capture_output=True, text=True, check=False)
            self.assertEqual((done.returncode, done.stdout), (2, ""), options)
            self.assertTrue(done.stderr.startswith("usage: service_platform"))

    def test_APortThatIsTakenEndsTheProgram(self):
        self.start()
        done = subprocess.run(COMMAND + ["--port", str(self.platform.port)], capture_output=True,
                              text=True, check=False, timeout=LIMIT_S)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("Address already in use", done.stderr)
        self.platform.stop()
        self.finish()


if __name__ == "__main__":
    split = sys.argv.index("--")
    COMMAND = sys.argv[split + 1:]
    names = ["ServicePlatform." + name for name in sys.argv[1:split]]
    unittest.main(argv=[sys.argv[0]] + names, verbosity=2)
