"""smbus2's `SMBus(bus)` on an adapter's I2C channel: the bus an I2cBus (varnel.i2c) on an
adapter it opens itself and closes with the bus."""
from .adapter import Adapter
from .i2c import I2cBus


def _parse_bus(bus):
    text = str(bus)
    try:
        handle_text, channel_text = text.split(":")
        handle, channel = int(handle_text, 0), int(channel_text, 10)
    except ValueError:
        raise ValueError(f"bus {bus!r}: expected \"HANDLE:CHANNEL\", e.g. \"0x12345678:0\"")
    return handle, channel


class SMBus(I2cBus):
    """smbus2's `SMBus(bus)` for channel CHANNEL of the adapter HANDLE: `bus` is
    "HANDLE:CHANNEL" ("0x12345678:0"). Opens the adapter, initialises the channel as a 7-bit
    master, and closes the adapter again with close() or at the end of a `with`."""

    def __init__(self, bus, force=False, clock_hz=100000):
        handle, channel = _parse_bus(bus)
        self.force = force
        adapter = Adapter(handle).open()
        try:
            super().__init__(adapter, channel, clock_hz=clock_hz)
        except BaseException:
            adapter.close()
            raise

    def close(self):
        super().close()
        self.adapter.close()
