"""The analogue inputs: `adapter.adc()`.

    with varnel.Adapter(0x12345678) as adapter:
        adc = adapter.adc()
        block = adc.read(100, mask=0x03, rate=10000)     # 100 rows, one column per input
        with adc.stream(mask=0x01, rate=100000) as stream:
            samples = stream.get()                      # what came since the last get
        print(stream.dropped)                            # packets the full queue dropped

Samples come as numpy arrays of uint16 when numpy is installed (python3-numpy), as lists
otherwise: `read` gives rows of inputs (shape (n, inputs)); the stream gives the samples as the
adapter interleaves them (the inputs of one instant side by side), or rows with `rows=True`.
A failed call raises VarnelError with its code.
"""
import ctypes

from .library import ADC_CALLBACK, lib

try:
    import numpy
except ImportError:  # lists instead
    numpy = None


def _inputs(mask):
    return bin(mask & 0xFF).count("1")


def _samples(data, count, columns=None):
    """A copy of `count` samples from a ctypes uint16 array or pointer, as rows of `columns`."""
    if count and isinstance(data, ctypes._Pointer):
        data = ctypes.cast(data, ctypes.POINTER(ctypes.c_uint16 * count)).contents
    if numpy is not None:
        array = numpy.frombuffer(data, dtype=numpy.uint16, count=count).copy() if count else \
            numpy.zeros(0, dtype=numpy.uint16)
        return array.reshape(-1, columns) if columns else array
    values = list(data[:count]) if count else []
    if columns:
        return [values[i:i + columns] for i in range(0, len(values), columns)]
    return values


class Adc:
    def __init__(self, adapter):
        self.adapter = adapter

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, *args)

    def read(self, samples_per_input, mask=0x01, rate=1000):
        """One block: `samples_per_input` rows, one column per input of `mask`."""
        self._call("ADC_Init", mask, rate)
        count = samples_per_input * _inputs(mask)
        out = (ctypes.c_uint16 * max(count, 1))()
        self._call("ADC_Read", out, samples_per_input)
        return _samples(out, count, _inputs(mask))

    def stream(self, mask=0x01, rate=1000, packet_samples=None, callback=None):
        """A continuous read (a context manager; started at once). With `callback`, each packet
        goes to callback(samples) on the library's thread and nothing is queued."""
        return AdcStream(self, mask, rate, packet_samples, callback)


class AdcStream:
    def __init__(self, adc, mask, rate, packet_samples, callback):
        self.adc, self.mask = adc, mask
        inputs = max(_inputs(mask), 1)
        # about 10 ms of samples a packet, a whole number of instants
        self.packet_samples = packet_samples or max(rate * inputs // 100 // inputs, 1) * inputs
        self._callback = None
        if callback is not None:
            def deliver(_handle, data, count):
                callback(_samples(data, count))

            self._callback = ADC_CALLBACK(deliver)  # kept alive while the stream runs
        self._buffer = (ctypes.c_uint16 * (self.packet_samples * 64))()
        self._partial = []
        self.adc._call("ADC_StartContinueRead", mask, rate, self.packet_samples,
                       self._callback or ADC_CALLBACK())  # ADC_CALLBACK(): NULL, queue instead

    def get(self, rows=False):
        """The samples queued so far, interleaved; with rows=True, whole instants as rows (a
        partial instant waits for the next call)."""
        chunks = []
        while True:
            n = self.adc._call("ADC_GetData", self._buffer, len(self._buffer))
            if n == 0:
                break
            chunks.append(_samples(self._buffer, n))
        flat = self._join(chunks)
        if not rows:
            return flat
        inputs = _inputs(self.mask)
        flat = self._join([self._partial, flat])
        whole = len(flat) - len(flat) % inputs
        self._partial = flat[whole:]
        return flat[:whole].reshape(-1, inputs) if numpy is not None else \
            [list(flat[i:i + inputs]) for i in range(0, whole, inputs)]

    @staticmethod
    def _join(chunks):
        if numpy is not None:
            return numpy.concatenate([numpy.asarray(c, dtype=numpy.uint16) for c in chunks]) \
                if chunks else numpy.zeros(0, dtype=numpy.uint16)
        return [value for chunk in chunks for value in chunk]

    @property
    def dropped(self):
        """Packets the full host queue dropped since the start."""
        return self.adc._call("VARNEL_ADC_Dropped")

    def stop(self):
        self.adc._call("ADC_StopContinueRead")
        self._callback = None

    def __enter__(self):
        return self

    def __exit__(self, *_exc):
        self.stop()
