"""Hostile and broken peers against the real agent: each closes only its own connection, with a
log line, within a bounded time, while a well-behaved viewer goes on being served."""
import os
import socket
import struct
import threading
import time
import unittest

from agent_process import Agent, resident_kib
from hlvp_client import HLVPClient, frame


class BadInputTest(unittest.TestCase):
    # What each hostile client does after TLS is up, the error code it should be told (None when
    # the agent just closes), and the time allowed for the close.
    TLS_CASES = {
        "truncated frame": (lambda c: (c.handshake("Truncating Viewer"),
                                       c.send_raw(struct.pack(">I", 100) + b"\xa1\x64ty")), "frameTimeout", 15),
        "4 GiB length": (lambda c: c.send_raw(b"\xff\xff\xff\xff"), "frameTooLarge", 5),
        "random bytes": (lambda c: c.send_raw(os.urandom(4096)), None, 15),
        "CBOR of the wrong shape": (lambda c: c.send_raw(frame([1, 2, 3])), "malformedMessage", 5),
        "unknown message type": (lambda c: c.send({"type": "launchMissiles"}), "malformedMessage", 5),
        "field of the wrong type": (lambda c: c.send({"type": "handshake", "clientName": 42,
                                                      "protocolVersion": 1}), "malformedMessage", 5),
        "oversized string": (lambda c: c.send({"type": "handshake", "clientName": "x" * 60000,
                                               "protocolVersion": 1}), "malformedMessage", 5),
        "frame over the sign-in limit": (lambda c: c.send_raw(struct.pack(">I", 70000) + b"\x00" * 70000),
                                         "frameTooLarge", 5),
        "thousands of tiny frames": (lambda c: c.send_raw(b"".join(frame({"type": "heartbeat"})
                                                                   for _ in range(5000))), "rateLimited", 5),
        "message only the agent sends": (lambda c: c.send({"type": "handshakeResponse", "agentName": "fake",
                                                           "protocolVersion": 1, "agentVersion": "1"}),
                                         "unexpectedMessage", 5),
    }

    def test_each_bad_peer_loses_only_its_own_connection(self):
        with Agent() as agent:
            agent.wait_until_running()
            good = HLVPClient(agent.port)
            self.assertIsNotNone(good.handshake("Good Viewer"))
            rss_before = resident_kib(agent.process.pid)

            results = {}

            def run_tls_case(name, action, code, allowed):
                client = HLVPClient(agent.port)
                started = time.monotonic()
                try:
                    action(client)
                except OSError:
                    pass  # the agent may close while the bad bytes are still being sent
                told = None
                closed = False
                client.sock.settimeout(allowed)
                try:
                    while True:
                        message = client.receive(allowed)
                        if message is None:
                            closed = True
                            break
                        if message.get("type") == "error":
                            told = message.get("code")
                except (socket.timeout, TimeoutError, OSError):
                    pass
                results[name] = (closed, told, time.monotonic() - started)
                client.close()

            def run_tcp(name, payload, allowed):
                """Plain TCP that never starts TLS: an HTTP request, or silence."""
                started = time.monotonic()
                with socket.create_connection(("127.0.0.1", agent.port), timeout=allowed + 5) as plain:
                    plain.sendall(payload)
                    try:
                        while plain.recv(4096):
                            pass
                        closed = True
                    except socket.timeout:
                        closed = False
                    except OSError:  # reset
                        closed = True
                results[name] = (closed, None, time.monotonic() - started)

            threads = [threading.Thread(target=run_tls_case, args=(name, *case)) for name, case in
                       self.TLS_CASES.items()]
            threads += [threading.Thread(target=run_tcp, args=("plain TCP", b"GET / HTTP/1.0\r\n\r\n", 5)),
                        threading.Thread(target=run_tcp, args=("TCP without TLS", b"", 15))]
            for thread in threads:
                thread.start()

            # The good viewer keeps being answered while the others misbehave.
            for sequence in range(6):
                good.send({"type": "heartbeat", "sequenceNumber": sequence})
                self.assertEqual(good.receive_until("heartbeatResponse")["sequenceNumber"], sequence)
                time.sleep(0.5)
            for thread in threads:
                thread.join(30)

            print("\n".join(f"{name}: closed={closed} told={told} after {took:.1f} s"
                             for name, (closed, told, took) in sorted(results.items())))
            limits = {name: case[2] for name, case in self.TLS_CASES.items()}
            limits.update({"plain TCP": 5, "TCP without TLS": 15})
            for name, (closed, told, took) in results.items():
                with self.subTest(name):
                    self.assertTrue(closed, f"{name}: the agent kept the connection open")
                    self.assertLessEqual(took, limits[name])
                    expected = self.TLS_CASES.get(name, (None, None))[1]
                    if expected:
                        self.assertEqual(told, expected)
            self.assertEqual(len(results), len(self.TLS_CASES) + 2)

            # Every closed connection left a line saying why.
            def closing_lines():
                return [m for c, m in agent.log()
                        if c in ("PROTOCOL", "SECURITY") and "closing the connection" in m]
            agent.wait_for(lambda: len(closing_lines()) >= len(self.TLS_CASES) - 2, what="the closing lines")
            log = agent.log()
            self.assertTrue(any(c == "TLS" for c, _ in log), "no line for the failed TLS negotiations")
            self.assertTrue(any("more than 20 messages per second" in m for _, m in log))

            # Still serving, still one agent, memory not run away.
            good.send({"type": "heartbeat", "sequenceNumber": 99})
            self.assertEqual(good.receive_until("heartbeatResponse")["sequenceNumber"], 99)
            self.assertIsNone(agent.process.poll())
            self.assertLess(resident_kib(agent.process.pid) - rss_before, 64 * 1024)
            good.send({"type": "disconnect", "reason": "done"})
            good.close()


if __name__ == "__main__":
    unittest.main()
