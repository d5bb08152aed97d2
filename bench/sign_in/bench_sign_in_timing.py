#!/usr/bin/env python3
"""Sign-in refusal timing: how long the real agent (running as the PAM test account) takes to
refuse a wrong password and a wrong user name, measured from the sign-in frame to the answer,
in one run, alternating. The two should not tell apart.

Each wrong password comes from a loopback address that first signed in with the right password,
so that the agent's limits judge it by its own record and every wrong password reaches PAM;
each wrong user name comes from an address of its own.

Needs root (it runs the agent as the test account of scripts/setup.sh test)."""
import argparse
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from bench_common import TEST_PASSWORD, TEST_USER, Agent, HLVPClient, use_agent  # noqa: E402


def sign_in(port, source, user, password):
    """Seconds from the sign-in frame to the answer, and the answer."""
    client = HLVPClient(port, timeout=30, source=source)
    try:
        client.handshake("Timing")
        started = time.perf_counter()
        client.send({"type": "authentication", "method": "password",
                     "credentials": {"username": user, "password": password}})
        answer = client.receive_until("authenticationResponse", timeout=30)
        return time.perf_counter() - started, answer
    finally:
        client.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--samples", type=int, default=40)
    args = parser.parse_args()
    use_agent(args.agent)
    wrong_password, wrong_name = [], []
    with Agent(user=TEST_USER) as agent:
        agent.wait_until_running()
        # Every address signs in once before any failure, while the name is not yet blocked.
        for i in range(args.samples):
            _, answer = sign_in(agent.port, f"127.0.1.{i + 1}", TEST_USER, TEST_PASSWORD)
            assert answer["success"], answer
        for i in range(args.samples):
            home = f"127.0.1.{i + 1}"
            took, answer = sign_in(agent.port, home, TEST_USER, "not the password")
            assert answer.get("errorMessage") == "Invalid credentials for this computer's account", answer
            wrong_password.append(took)
            took, answer = sign_in(agent.port, f"127.0.2.{i + 1}", f"nobody{i}", "not the password")
            assert answer.get("errorMessage") == "Invalid credentials for this computer's account", answer
            wrong_name.append(took)
    for name, values in (("wrong password", wrong_password), ("wrong user name", wrong_name)):
        values = sorted(values)
        print(f"{name:16} n={len(values)} median {statistics.median(values) * 1000:7.2f} ms, "
              f"p10 {values[len(values) // 10] * 1000:7.2f} ms, p90 {values[len(values) * 9 // 10] * 1000:7.2f} ms, "
              f"min {values[0] * 1000:7.2f} ms, max {values[-1] * 1000:7.2f} ms")
    ratio = statistics.median(wrong_name) / statistics.median(wrong_password)
    print(f"median ratio (wrong name / wrong password): {ratio:.3f}")


if __name__ == "__main__":
    main()
