"""The records of varnel.h that the wrapped calls use, laid out byte for byte (packed)."""
import ctypes

MAX_DEVICES = 60  # VARNEL_MAX_DEVICES: USB_ScanDevice fills this many handles at most
FUNCTION_STRING_SIZE = 201  # VARNEL_DEV_FUNCTION_STRING_SIZE
CANFD_EVENT_ID = 0xFFFFFFFF  # VARNEL_CANFD_EVENT_ID: a device event, not a frame

GPIO_PULL_NONE = 0
GPIO_PULL_UP = 1
GPIO_PULL_DOWN = 2


class CAN_MSG(ctypes.Structure):
    """Classic CAN record, 20 bytes."""

    _pack_ = 1
    _fields_ = [
        ("Id", ctypes.c_uint32),
        ("TimeStamp", ctypes.c_uint32),  # units of 10 us, bits 0-31
        ("Flags", ctypes.c_uint8),  # bit 0 remote, bits 5-6 channel, bit 7 sent by this host
        ("Extended", ctypes.c_uint8),  # bit 0: 29-bit identifier
        ("DataLen", ctypes.c_uint8),
        ("Data", ctypes.c_uint8 * 8),
        ("TimeStampHigh", ctypes.c_uint8),  # time stamp bits 32-39
    ]


class CANFD_MSG(ctypes.Structure):
    """CAN FD record, 76 bytes. Id bit 31 extended, bit 30 remote."""

    _pack_ = 1
    _fields_ = [
        ("Id", ctypes.c_uint32),
        ("DataLen", ctypes.c_uint8),
        # bit 0 bit-rate switch, bit 2 FD format, bit 5 channel, bit 7 echo
        ("Flags", ctypes.c_uint8),
        ("__Res", ctypes.c_uint8),
        ("TimeStampHigh", ctypes.c_uint8),
        ("TimeStamp", ctypes.c_uint32),  # units of 1 us, bits 0-31; on send: allowed delay in ms
        ("Data", ctypes.c_uint8 * 64),
    ]


class CAN_INIT_CONFIG(ctypes.Structure):
    """Classic controller set-up, 12 bytes, as CAN_GetCANSpeedArg fills it."""

    _pack_ = 1
    _fields_ = [
        ("Prescaler", ctypes.c_uint32),
        ("Sjw", ctypes.c_uint8),
        ("Bs1", ctypes.c_uint8),
        ("Bs2", ctypes.c_uint8),
        ("Mode", ctypes.c_uint8),  # bits 0-1 operating mode, bit 7 device option
        ("ControllerOption1", ctypes.c_uint8),
        ("ControllerOption2", ctypes.c_uint8),
        ("ControllerOption3", ctypes.c_uint8),
        ("ControllerOption4", ctypes.c_uint8),
    ]


class CANFD_INIT_CONFIG(ctypes.Structure):
    """CAN FD controller set-up, 20 bytes, as CANFD_GetCANSpeedArg fills it."""

    _pack_ = 1
    _fields_ = [
        ("Mode", ctypes.c_uint8),
        ("Option", ctypes.c_uint8),
        ("FrameFormat", ctypes.c_uint8),
        ("DeviceOption", ctypes.c_uint8),
        ("NomPrescaler", ctypes.c_uint8),
        ("NomSeg1", ctypes.c_uint8),
        ("NomSeg2", ctypes.c_uint8),
        ("NomSjw", ctypes.c_uint8),
        ("DataPrescaler", ctypes.c_uint8),
        ("DataSeg1", ctypes.c_uint8),
        ("DataSeg2", ctypes.c_uint8),
        ("DataSjw", ctypes.c_uint8),
        ("DelayCompensation", ctypes.c_uint8),
        ("Reserved", ctypes.c_uint8 * 7),
    ]


class DEVICE_INFO(ctypes.Structure):
    """The adapter's 88-byte device information record."""

    _pack_ = 1
    _fields_ = [
        ("FirmwareName", ctypes.c_char * 32),
        ("BuildDate", ctypes.c_char * 32),
        ("HardwareVersion", ctypes.c_uint32),
        ("FirmwareVersion", ctypes.c_uint32),
        ("SerialNumber", ctypes.c_uint32 * 3),
        ("FunctionsLength", ctypes.c_uint32),
    ]


class CAN_STATUS(ctypes.Structure):
    _pack_ = 1
    _fields_ = [
        ("ControllerStatus", ctypes.c_uint32),
        ("ErrorStatus", ctypes.c_uint32),
        ("RxErrorCounter", ctypes.c_uint8),
        ("TxErrorCounter", ctypes.c_uint8),
        ("LastErrorCode", ctypes.c_uint8),
        ("ErrorFlags", ctypes.c_uint8),  # bit 0 warning, bit 1 passive, bit 2 bus off
    ]


class VARNEL_RECEIVE_STATS(ctypes.Structure):
    """What a channel's receive path lost, and its controller's state (an extension call)."""
    _pack_ = 1
    _fields_ = [
        ("ApplicationDropped", ctypes.c_uint64),
        ("DiagnosticDropped", ctypes.c_uint64),
        ("FetchesDropped", ctypes.c_uint64),
        ("PollerRunning", ctypes.c_int32),
        ("PollerStopResult", ctypes.c_int32),
        ("StatusResult", ctypes.c_int32),
        ("Status", CAN_STATUS),
    ]


# Every record above, by its C name: the record-size test walks this list.
RECORDS = {cls.__name__: cls for cls in (CAN_MSG, CANFD_MSG, CAN_INIT_CONFIG, CANFD_INIT_CONFIG,
                                         DEVICE_INFO, CAN_STATUS, VARNEL_RECEIVE_STATS)}


SMBUS_BLOCK_MAX = 32  # VARNEL_SMBUS_BLOCK_MAX
IIC_MAX_ADDRESSES = 1024  # IIC_GetSlaveAddr stores at most this many


class IIC_CONFIG(ctypes.Structure):
    """I2C channel configuration, 12 bytes."""

    _pack_ = 1
    _fields_ = [
        ("ClockSpeedHz", ctypes.c_uint32),
        ("OwnAddr", ctypes.c_uint16),
        ("Master", ctypes.c_uint8),
        ("AddrBits", ctypes.c_uint8),
        ("Option1", ctypes.c_uint8),
        ("Option2", ctypes.c_uint8),
        ("Reserved", ctypes.c_uint8 * 2),
    ]
RECORDS[IIC_CONFIG.__name__] = IIC_CONFIG


class CAN_UDS_CONFIG(ctypes.Structure):
    """ISO-TP settings of a CAN channel, 8 bytes."""

    _pack_ = 1
    _fields_ = [
        ("STmin", ctypes.c_uint8),
        ("BlockSize", ctypes.c_uint8),
        ("FillByte", ctypes.c_uint8),
        ("Reserved", ctypes.c_uint8),
        ("FlowWaitMs", ctypes.c_uint32),
    ]
RECORDS[CAN_UDS_CONFIG.__name__] = CAN_UDS_CONFIG


class CAN_UDS_ADDR(ctypes.Structure):
    """Addressing of one ISO-TP exchange, 12 bytes."""

    _pack_ = 1
    _fields_ = [
        ("ReqID", ctypes.c_uint32),
        ("ResID", ctypes.c_uint32),
        ("Flags", ctypes.c_uint8),
        ("ExtAddr", ctypes.c_uint8),
        ("AddrByte", ctypes.c_uint8),
        ("FrameLen", ctypes.c_uint8),
    ]
RECORDS[CAN_UDS_ADDR.__name__] = CAN_UDS_ADDR


class SPI_CONFIG(ctypes.Structure):
    """SPI port configuration, 12 bytes (the option bytes are the adapter's to read)."""

    _pack_ = 1
    _fields_ = [
        ("Mode", ctypes.c_uint8),
        ("Master", ctypes.c_uint8),
        ("CPOL", ctypes.c_uint8),
        ("CPHA", ctypes.c_uint8),
        ("LSBFirst", ctypes.c_uint8),
        ("SelPolarity", ctypes.c_uint8),
        ("Reserved", ctypes.c_uint8 * 2),
        ("ClockSpeedHz", ctypes.c_uint32),
    ]
RECORDS[SPI_CONFIG.__name__] = SPI_CONFIG


class SPI_FLASH_CONFIG(ctypes.Structure):
    """SPI NOR flash description, 44 bytes."""

    _pack_ = 1
    _fields_ = [
        ("Commands", ctypes.c_uint8 * 32),
        ("Param64", ctypes.c_uint64),
        ("Param32", ctypes.c_uint32),
    ]
RECORDS[SPI_FLASH_CONFIG.__name__] = SPI_FLASH_CONFIG


UART_READ_SIZE = 4096  # VARNEL_UART_READ_SIZE: what one UART_ReadBytes may write
UART_MAX_LENGTH = 65536  # VARNEL_UART_MAX_LENGTH: the most one write sends


class UART_CONFIG(ctypes.Structure):
    """UART channel configuration, 8 bytes as they lie in memory: the baud rate in host order,
    then the virtual adapter's parity (0 none, 1 odd, 2 even), stop bits (0/1 one, 2 two), a
    reserved byte and the mode letter (0 plain, or K-line's b"B", b"R", b"Z")."""

    _pack_ = 1
    _fields_ = [
        ("BaudRate", ctypes.c_uint32),
        ("Parity", ctypes.c_uint8),
        ("StopBits", ctypes.c_uint8),
        ("Reserved", ctypes.c_uint8),
        ("Mode", ctypes.c_uint8),
    ]
RECORDS[UART_CONFIG.__name__] = UART_CONFIG


class LIN_EX_MSG(ctypes.Structure):
    """LIN frame record, 20 bytes, the same in both directions."""

    _pack_ = 1
    _fields_ = [
        ("TimeStamp", ctypes.c_uint32),  # out: delay or interval in ms; in: device time in ms
        ("MsgType", ctypes.c_uint8),  # 1 write, 2 read, 3 slave response, 5 break; in: 8 or 9
        ("CheckType", ctypes.c_uint8),  # out: 0 classic, 1 enhanced...; in: the verdict
        ("DataLen", ctypes.c_uint8),
        ("Sync", ctypes.c_uint8),
        ("PID", ctypes.c_uint8),
        ("Data", ctypes.c_uint8 * 8),
        ("Check", ctypes.c_uint8),
        ("BreakBits", ctypes.c_uint8),
        ("Tag", ctypes.c_uint8),
    ]
RECORDS[LIN_EX_MSG.__name__] = LIN_EX_MSG


class LIN_UDS_ADDR(ctypes.Structure):
    """Addressing of LIN diagnostic messages, 5 bytes."""

    _pack_ = 1
    _fields_ = [
        ("ReqID", ctypes.c_uint8),
        ("ResID", ctypes.c_uint8),
        ("NAD", ctypes.c_uint8),
        ("CheckType", ctypes.c_uint8),
        ("FrameSpacing", ctypes.c_uint8),
    ]
RECORDS[LIN_UDS_ADDR.__name__] = LIN_UDS_ADDR


KLINE_DATA_SIZE = 254  # VARNEL_KLINE_DATA_SIZE


class K_MSG(ctypes.Structure):
    """Request and response of the K_ calls, 260 bytes."""

    _pack_ = 1
    _fields_ = [
        ("Fmt", ctypes.c_uint8),
        ("Tgt", ctypes.c_uint8),
        ("Src", ctypes.c_uint8),
        ("Len", ctypes.c_uint8),
        ("SID", ctypes.c_uint8),
        ("Data", ctypes.c_uint8 * KLINE_DATA_SIZE),
        ("CheckSum", ctypes.c_uint8),
    ]
RECORDS[K_MSG.__name__] = K_MSG


class KWP_MSG(ctypes.Structure):
    """Record of the KWP_ calls, 268 bytes."""

    _pack_ = 1
    _fields_ = [
        ("TimeStamp", ctypes.c_uint32),  # device time in ms, bits 0-31
        ("TimeStampHi", ctypes.c_uint8),  # bits 32-39
        ("Kind", ctypes.c_uint8),  # 1 5-baud init, 2 fast init, 3 request, 4 response
        ("Status", ctypes.c_uint8),  # 0x01 checksum, 0x02 time-out, 0x04 frame, 0x10 echo
        ("P4", ctypes.c_uint8),
        ("Fmt", ctypes.c_uint8),
        ("Tgt", ctypes.c_uint8),
        ("Src", ctypes.c_uint8),
        ("Len", ctypes.c_uint8),
        ("SID", ctypes.c_uint8),
        ("Data", ctypes.c_uint8 * KLINE_DATA_SIZE),
        ("CheckSum", ctypes.c_uint8),
    ]
RECORDS[KWP_MSG.__name__] = KWP_MSG


class HEXFILE_SEGMENT(ctypes.Structure):
    """One segment of a firmware image, 16 bytes; pData is owned by the library."""

    _pack_ = 1
    _fields_ = [
        ("StartAddr", ctypes.c_uint32),
        ("DataLen", ctypes.c_uint32),
        ("pData", ctypes.POINTER(ctypes.c_uint8)),
    ]
RECORDS[HEXFILE_SEGMENT.__name__] = HEXFILE_SEGMENT
