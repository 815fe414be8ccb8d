#!/usr/bin/python3
"""`varnel socketcand` against python-can's socketcand client, on the virtual adapter.

Starts the bridge on a free port, opens python-can buses on can0/can1 (classic) and can2/can3
(CAN FD), sends frames both ways and compares every field; a raw TCP client checks the exact wire
text (python-can's client reports every received frame as extended, so the identifier width on
the wire is where standard and extended show), that malformed commands get error replies and
that the server exits 0 on SIGTERM. Every wait has a time-out; the whole run is bounded by an
alarm.
"""
import argparse
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
    deadline = time.time() + 20
    while time.time() < deadline:
        ready, _, _ = select.select([proc.stdout], [], [], deadline - time.time())
        if not ready:
            break
        line = proc.stdout.readline()
        if not line:
            break
        match = re.match(r"socketcand: listening on 127\.0\.0\.1:(\d+)$", line.strip())
        if match:
            return proc, int(match.group(1))
    proc.kill()
    fail("the server did not say which port it listens on: " + proc.stderr.read())


class RawClient:
    """A plain TCP client that sees the server's bytes as they are."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=WAIT)
        self.buffer = b""
        self.expect(b"< hi >")

    def send(self, text):
        self.sock.sendall(text)

    def read_until(self, end):
        deadline = time.time() + WAIT
        while end not in self.buffer:
            if time.time() > deadline:
                fail(f"waited for {end!r}, got {self.buffer!r}")
            ready, _, _ = select.select([self.sock], [], [], 0.1)
            if ready:
                chunk = self.sock.recv(4096)
                if not chunk:
                    fail(f"connection closed while waiting for {end!r}: {self.buffer!r}")
                self.buffer += chunk
        cut = self.buffer.index(end) + len(end)
        text, self.buffer = self.buffer[:cut], self.buffer[cut:]
        return text

    def expect(self, text):
        got = self.read_until(text)
        if got != text:
            fail(f"expected exactly {text!r}, got {got!r}")

    def frames(self, count):
        """The next `count` frame elements as (id text, data text)."""
        found = []
        while len(found) < count:
            element = self.read_until(b">").strip()
            match = re.fullmatch(rb"< frame ([0-9A-F]+) (\d+)\.(\d{6}) ([0-9A-F]*) >", element)
            if not match:
                fail(f"not a frame element: {element!r}")
            found.append((match.group(1).decode(), match.group(4).decode()))
        return found

    def close(self):
        self.sock.close()


def expected_wire(message):
    width = 8 if message.is_extended_id else 3
    return (f"{message.arbitration_id:0{width}X}", message.data.hex().upper())


def check_received(sent, got, where, sent_at):
    if got is None:
        fail(f"{where}: frame {sent} did not arrive")
    for field in ("arbitration_id", "dlc", "data"):
        if getattr(got, field) != getattr(sent, field):
            fail(f"{where}: {field} {getattr(got, field)!r} != {getattr(sent, field)!r}")
    # Time stamps are the device's, moved to host time: a wrong unit or start time is far off.
    if not sent_at - 0.5 <= got.timestamp <= time.time() + 0.5:
        fail(f"{where}: time stamp {got.timestamp} is not between the send ({sent_at}) and now")


def classic_frames(bus_from, bus_to, observer, frames, where):
    """Sends `frames` on bus_from; bus_to must receive them and the observer (on can1) must see
    them on the wire with the right identifier width."""
    for message in frames:
        sent_at = time.time()
        bus_from.send(message)
        check_received(message, bus_to.recv(timeout=WAIT), where, sent_at)
    seen = observer.frames(len(frames))
    if seen != [expected_wire(m) for m in frames]:
        fail(f"{where}: wire {seen} != {[expected_wire(m) for m in frames]}")


def burst(bus_from, bus_to):
    """Many frames at once: python-can's client reads 1024 bytes at a time, so elements arrive cut
    at every place; none may be lost."""
    count = 300
    for i in range(count):
        bus_from.send(can.Message(arbitration_id=i, is_extended_id=False, data=[i & 0xFF, 0x5A]))
    got = []
    deadline = time.time() + 4 * WAIT
    while len(got) < count and time.time() < deadline:
        message = bus_to.recv(timeout=WAIT)
        if message is None:
            break
        got.append((message.arbitration_id, bytes(message.data)))
    expected = [(i, bytes([i & 0xFF, 0x5A])) for i in range(count)]
    if got != expected:
        lost = len(set(expected) - set(got))
        fail(f"burst: {len(got)} of {count} frames arrived, {lost} lost or changed")


def malformed_commands(port):
    client = RawClient(port)
    client.send(b"garbage line\n< open nope >< send 123 1 ff >< open can0 >"
                b"< send 12G 0 >< subscribe 0 0 123 >< send 123 2 1 >< echo >")
    expected = (b"< error garbage outside a command >"
                b"< error no such bus (use can0..can3 or HANDLE:CH) >"
                b"< error open a bus first >"
                b"< ok >"
                b"< error send: bad identifier 12G >"
                b"< error subscribe is a BCM command; this server offers rawmode only >"
                b"< error send: length 2 but 1 data bytes >"
                b"< echo >")
    got = client.read_until(b"< echo >")
    if got != expected:
        fail(f"malformed commands: got {got!r}, expected {expected!r}")
    # Split across writes, with the closing bracket alone.
    client.send(b"< ec")
    time.sleep(0.05)
    client.send(b"ho ")
    time.sleep(0.05)
    client.send(b">")
    client.expect(b"< echo >")
    client.close()


def beacon(varnel):
    """With --beacon the server broadcasts where it listens and its buses to UDP port 42000."""
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    receiver.bind(("", 42000))
    proc, port = start_server(varnel, "--beacon")
    try:
        deadline = time.time() + WAIT
        url = f"<URL>can://127.0.0.1:{port}</URL>".encode()
        while True:  # other hosts' beacons may come first
            ready, _, _ = select.select([receiver], [], [], max(0, deadline - time.time()))
            if not ready:
                fail("no beacon within %.0f s" % WAIT)
            text = receiver.recv(4096)
            if url in text:
                break
        if not re.fullmatch(rb'<CANBeacon name="[^"]*" type="SocketCAN" description="[^"]*">\n'
                            + re.escape(url) + rb'\n(<Bus name="can[0-3]"/>\n){4}</CANBeacon>',
                            text):
            fail(f"beacon: {text!r}")
        proc.send_signal(signal.SIGTERM)
        if proc.wait(timeout=15) != 0:
            fail("beacon server: exit code " + str(proc.returncode))
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        receiver.close()


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

    proc, port = start_server(args.varnel)
    try:
        bus0 = can.Bus(interface="socketcand", host="127.0.0.1", port=port, channel="can0")
        bus1 = can.Bus(interface="socketcand", host="127.0.0.1", port=port, channel="can1")
        observer = RawClient(port)
        observer.send(b"< open can1 >< rawmode >")
        observer.expect(b"< ok >< ok >")

        Message = can.Message
        there = [
            Message(arbitration_id=0x123, is_extended_id=False, data=[0x01, 0x0A, 0xFF]),
            Message(arbitration_id=0x7FF, is_extended_id=False, data=[]),
            Message(arbitration_id=0x000, is_extended_id=False, data=range(8)),
            Message(arbitration_id=0x1ABCDEF0, is_extended_id=True, data=[0xDE, 0xAD]),
            Message(arbitration_id=0x800, is_extended_id=True, data=[0x11]),
        ]
        classic_frames(bus0, bus1, observer, there, "can0 -> can1")
        back = [
            Message(arbitration_id=0x456, is_extended_id=False, data=[0x10, 0x20, 0x30, 0x40]),
            Message(arbitration_id=0x1FFFFFFF, is_extended_id=True, data=[0xFF] * 8),
        ]
        # The observer shares can1 with bus1, so it sees bus1's frames as a SocketCAN socket would.
        classic_frames(bus1, bus0, observer, back, "can1 -> can0")

        burst(bus0, bus1)
        observer.frames(300)
        malformed_commands(port)
        # The server is still up and still bridges.
        classic_frames(bus0, bus1, observer, there[:1], "after malformed commands")
        observer.close()
        bus0.shutdown()
        bus1.shutdown()

        # CAN FD adapter: a data length above 8 makes python-can's client send a CAN FD frame.
        bus2 = can.Bus(interface="socketcand", host="127.0.0.1", port=port, channel="can2")
        bus3 = can.Bus(interface="socketcand", host="127.0.0.1", port=port, channel="can3")
        for message in [
            Message(arbitration_id=0x321, is_extended_id=False, is_fd=True, data=range(12)),
            Message(arbitration_id=0x18DAF110, is_extended_id=True, is_fd=True,
                    data=bytes(range(64))),
            Message(arbitration_id=0x100, is_extended_id=False, data=[0x55]),
        ]:
            sent_at = time.time()
            bus2.send(message)
            check_received(message, bus3.recv(timeout=WAIT), "can2 -> can3", sent_at)
        bus2.shutdown()
        bus3.shutdown()

        proc.send_signal(signal.SIGTERM)
        code = proc.wait(timeout=15)
        if code != 0:
            fail(f"exit code {code} after SIGTERM: {proc.stderr.read()}")
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
    beacon(args.varnel)
    print("socketcand interop: python-can and the raw client agree with the bridge")


if __name__ == "__main__":
    try:
        main()
    except AssertionError as error:
        print("FAIL:", error, file=sys.stderr)
        sys.exit(1)
