"""A tester's ISO-TP written from ISO 15765-2 alone, over any python-can bus, for the tests and
benches that hold the virtual diagnostic ECU to the written rules: normal addressing, 8-byte
classic frames padded with 0xCC; single frames (0L), first frames (1L LL, or 10 00 and a 32-bit
length), consecutive frames (2N), flow control (30 BS ST; 31 wait). It shares no code with the
library or the ECU; with the identifiers swapped it is the peer of a client."""
import time

P2_S, N_BS_S, N_CR_S = 0.050, 1.0, 1.0
P2_STAR_S = 5.0
PAD = 0xCC
FRAME_BITS = 135  # the longest 8-byte frame with an 11-bit identifier, stuff bits included


class Timeout(Exception):
    pass


def stmin_seconds(code):
    if code <= 0x7F:
        return code / 1000.0
    if 0xF1 <= code <= 0xF9:
        return (code - 0xF0) / 10000.0
    return 0.127  # reserved: the longest gap


class IsoTpClient:
    def __init__(self, bus, request_id=0x7E0, response_id=0x7E8, block_size=0, stmin=0,
                 bitrate=500000):
        self.bus, self.request_id, self.response_id = bus, request_id, response_id
        self.frame_s = FRAME_BITS / bitrate
        self.block_size, self.stmin = block_size, stmin  # our flow control when receiving
        self.frames = []  # every frame of the response identifier, as received
        self.sent = 0

    def frame(self, payload):
        import can
        data = bytes(payload) + bytes([PAD]) * (8 - len(payload))
        self.sent += 1
        self.bus.send(can.Message(arbitration_id=self.request_id, is_extended_id=False, data=data))

    def receive_frame(self, seconds):
        deadline = time.perf_counter() + seconds
        while True:
            left = deadline - time.perf_counter()
            if left <= 0:
                raise Timeout()
            msg = self.bus.recv(left)
            if msg is not None and msg.arbitration_id == self.response_id:
                self.frames.append(bytes(msg.data))
                return bytes(msg.data)

    def quiet_for(self, seconds):
        """True when no frame of the response identifier comes within `seconds`."""
        try:
            self.receive_frame(seconds)
        except Timeout:
            return True
        return False

    def send(self, payload):
        if len(payload) <= 7:
            self.frame([len(payload)] + list(payload))
            return
        n = len(payload)
        head = [0x10 | n >> 8, n & 0xFF] if n <= 0xFFF else [0x10, 0] + list(n.to_bytes(4, "big"))
        at, sequence = 8 - len(head), 1
        self.frame(head + list(payload[:at]))
        while at < len(payload):
            control = self.receive_frame(N_BS_S)
            while control[0] == 0x31:  # wait: N_Bs starts again
                control = self.receive_frame(N_BS_S)
            if control[0] != 0x30:
                raise RuntimeError("flow control expected, got %s" % control.hex())
            block, gap = control[1], stmin_seconds(control[2])
            sent = 0
            while at < len(payload) and (block == 0 or sent < block):
                self.frame([0x20 | sequence] + list(payload[at:at + 7]))
                at, sequence, sent = at + 7, (sequence + 1) & 0x0F, sent + 1
                if gap and at < len(payload):
                    time.sleep(gap)

    def receive(self, first_wait):
        first = self.receive_frame(first_wait)
        kind = first[0] >> 4
        if kind == 0:
            return first[1:1 + (first[0] & 0x0F)]
        if kind != 1:
            raise RuntimeError("unexpected frame %s" % first.hex())
        length = ((first[0] & 0x0F) << 8) | first[1]
        data = bytearray(first[2:8])
        if length == 0:
            length, data = int.from_bytes(first[2:6], "big"), bytearray(first[6:8])
        flow = [0x30, self.block_size, self.stmin]
        self.frame(flow)
        sequence, in_block = 1, 0
        while len(data) < length:
            frame = self.receive_frame(N_CR_S)
            if frame[0] != (0x20 | sequence):
                raise RuntimeError("consecutive frame %d expected, got %s" % (sequence, frame.hex()))
            data += frame[1:8]
            sequence, in_block = (sequence + 1) & 0x0F, in_block + 1
            if self.block_size and in_block == self.block_size and len(data) < length:
                # the sender keeps to the block: nothing more until our next flow control
                if not self.quiet_for(0.03):
                    raise RuntimeError("a frame came after a full block of %d" % self.block_size)
                self.frame(flow)
                in_block = 0
        return bytes(data[:length])

    def request(self, payload):
        """The final answer; the "response pending" answers before it are in `self.pending`."""
        self.pending, self.sent = [], 0
        self.send(payload)
        # P2 runs from the request's end on the bus; send() returns once the adapter has the
        # frame, so the bus time of what went out is still to come
        answer = self.receive(P2_S + self.sent * self.frame_s)
        while len(answer) == 3 and answer[0] == 0x7F and answer[2] == 0x78:
            self.pending.append(answer)
            answer = self.receive(P2_STAR_S)
        return answer
