#!/usr/bin/python3
"""`varnel socketcand` against python-can's socketcand client, on the virtual adapter.

Frames go both ways between can0 and can1 (classic) and from can2 to can3 (CAN FD), every field
compared; a burst must arrive whole; the server exits 0 on SIGTERM; --beacon broadcasts where it
listens; the virtual diagnostic ECU answers at the bridge's bit rate. Exact replies to malformed input are checked by the C++ server test.
"""
import argparse
import contextlib
import logging
import os
import re
import select
import signal
import socket
import subprocess
import sys
import time

import can

WAIT = 5.0  # seconds for any single answer


def fail(message):
    raise AssertionError(message)


def start_server(varnel, *options):
    env = {k: v for k, v in os.environ.items()
           if k not in ("LD_LIBRARY_PATH", "VARNEL_USBSIM_ADAPTERS", "VARNEL_SIM_ACTIVE")}
    proc = subprocess.Popen([varnel, "--sim", "socketcand", "--port", "0", *options], env=env,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    while select.select([proc.stdout], [], [], 20)[0]:
        line = proc.stdout.readline()
        match = re.match(r"socketcand: listening on 127\.0\.0\.1:(\d+)$", line.strip())
        if match:
            return proc, int(match.group(1))
        if not line:
            break
    proc.kill()
    fail("the server did not say which port it listens on: " + proc.stderr.read())


@contextlib.contextmanager
def server(varnel, *options):
    """The port of a server that must exit 0 on SIGTERM at the end of the block."""
    proc, port = start_server(varnel, *options)
    try:
        yield port
        proc.send_signal(signal.SIGTERM)
        if proc.wait(timeout=15) != 0:
            fail(f"exit code {proc.returncode} after SIGTERM: {proc.stderr.read()}")
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()


def check_frames(bus_from, bus_to, messages, where):
    for sent in messages:
        sent_at = time.time()
        bus_from.send(sent)
        got = bus_to.recv(timeout=WAIT)
        if got is None:
            fail(f"{where}: frame {sent} did not arrive")
        for field in ("arbitration_id", "dlc", "data"):
            if getattr(got, field) != getattr(sent, field):
                fail(f"{where}: {field} {getattr(got, field)!r} != {getattr(sent, field)!r}")
        # Device time stamps moved to host time: a wrong unit or start time is far off.
        if not sent_at - 0.5 <= got.timestamp <= time.time() + 0.5:
            fail(f"{where}: time stamp {got.timestamp} is not between the send ({sent_at}) and now")


def burst(bus_from, bus_to, count=300):
    """python-can's client reads 1024 bytes at a time, so elements arrive cut at every place."""
    for i in range(count):
        bus_from.send(can.Message(arbitration_id=i, is_extended_id=False, data=[i & 0xFF, 0x5A]))
    got = []
    while len(got) < count and (message := bus_to.recv(timeout=WAIT)) is not None:
        got.append((message.arbitration_id, bytes(message.data)))
    if got != [(i, bytes([i & 0xFF, 0x5A])) for i in range(count)]:
        fail(f"burst: {len(got)} of {count} frames arrived, or some changed")


def beacon(varnel):
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    receiver.bind(("", 42000))
    with server(varnel, "--beacon") as port:
        url = f"<URL>can://127.0.0.1:{port}</URL>".encode()
        text = b""
        while url not in text:  # other hosts' beacons may come first
            if not select.select([receiver], [], [], WAIT)[0]:
                fail("no beacon within %.0f s" % WAIT)
            text = receiver.recv(4096)
        if not re.search(re.escape(url) + rb'\n(<Bus name="can[0-3]"/>\n){4}</CANBeacon>$', text):
            fail(f"beacon: {text!r}")
    receiver.close()


def diagnostic_ecu_answers(varnel):
    """`varnel --sim socketcand` has the virtual diagnostic ECU its help promises (7E0/7E8), at
    the default bit rate and at the one -b sets: tester present gets its positive answer."""
    for options in ([], ["-b", "250000"]):
        with server(varnel, *options) as port:
            bus = can.Bus(interface="socketcand", host="127.0.0.1", port=port, channel="can0")
            bus.send(can.Message(arbitration_id=0x7E0, is_extended_id=False,
                                 data=[0x02, 0x3E, 0x00, 0, 0, 0, 0, 0]))
            got = bus.recv(timeout=WAIT)
            bus.shutdown()
            if got is None or got.arbitration_id != 0x7E8 or bytes(got.data[:3]) != b"\x02\x7E\x00":
                fail(f"socketcand {' '.join(options)}: no answer from the diagnostic ECU ({got})")


def on_alarm(signum, frame):
    raise AssertionError("the test did not finish within 90 s")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--varnel", required=True)
    args = parser.parse_args()
    # python-can's client logs every partial read as a warning.
    logging.getLogger("can.interfaces.socketcand").setLevel(logging.ERROR)
    # Never hang, whatever goes wrong; raising (rather than dying) lets the servers be killed.
    signal.signal(signal.SIGALRM, on_alarm)
    signal.alarm(90)
    socket.setdefaulttimeout(WAIT)  # python-can's client reads its handshake without one

    with server(args.varnel) as port:
        def bus(channel):
            return can.Bus(interface="socketcand", host="127.0.0.1", port=port, channel=channel)

        bus0, bus1 = bus("can0"), bus("can1")
        Message = can.Message
        check_frames(bus0, bus1, [
            Message(arbitration_id=0x123, is_extended_id=False, data=[0x01, 0x0A, 0xFF]),
            Message(arbitration_id=0x7FF, is_extended_id=False, data=[]),
            Message(arbitration_id=0x1ABCDEF0, is_extended_id=True, data=[0xDE, 0xAD]),
            Message(arbitration_id=0x800, is_extended_id=True, data=[0x11]),
        ], "can0 -> can1")
        check_frames(bus1, bus0, [
            Message(arbitration_id=0x1FFFFFFF, is_extended_id=True, data=[0xFF] * 8),
        ], "can1 -> can0")
        burst(bus0, bus1)
        bus0.shutdown()
        bus1.shutdown()
        # Every open channel hears the virtual bus, so can3 opens after can0 and can1 are closed.
        # A data length above 8 makes python-can's client send a CAN FD frame.
        bus2, bus3 = bus("can2"), bus("can3")
        check_frames(bus2, bus3, [
            Message(arbitration_id=0x321, is_extended_id=False, is_fd=True, data=range(12)),
            Message(arbitration_id=0x18DAF110, is_extended_id=True, is_fd=True,
                    data=bytes(range(64))),
            Message(arbitration_id=0x100, is_extended_id=False, data=[0x55]),
        ], "can2 -> can3")
        bus2.shutdown()
        bus3.shutdown()
    beacon(args.varnel)
    diagnostic_ecu_answers(args.varnel)
    print("socketcand interop: python-can agrees with the bridge")


if __name__ == "__main__":
    try:
        main()
    except AssertionError as error:
        print("FAIL:", error, file=sys.stderr)
        sys.exit(1)
