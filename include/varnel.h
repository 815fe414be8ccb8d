/* VARNEL host library: the public interface.
 *
 * Every exported function and every record that crosses the interface is declared here, byte for
 * byte. Records are packed; each carries a static_assert on its size. Integer fields of records
 * are little-endian as they lie in memory; payloads on the wire are built by the library.
 *
 * Result codes common to most calls: 0 success (or a count), -1 unknown handle / not connected,
 * -2 command could not be written, -3 reply missing/short/of another command, -4 reply could not
 * be read or reported failure, -5 channel not initialised, -7 bad index or argument.
 * USB_ and DEV_ calls return a boolean.
 */
#ifndef VARNEL_H
#define VARNEL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VARNEL_EXTERN_C extern "C"
#else
#define VARNEL_EXTERN_C
#endif
#define VARNEL_API VARNEL_EXTERN_C __attribute__((visibility("default")))

#ifdef __cplusplus
#define VARNEL_STATIC_ASSERT static_assert
#else
#define VARNEL_STATIC_ASSERT _Static_assert
#endif

typedef uint32_t DevHandle;

#pragma pack(push, 1)

/* ===== Shared message records ============================================================== */

/* Classic CAN message, 20 bytes. */
typedef struct CAN_MSG {
  uint32_t Id;        /* bits 0-28 identifier */
  uint32_t TimeStamp; /* device time stamp of a received frame; 0 in the copy that is sent */
  uint8_t Flags;      /* bit0 remote, bits5-6 channel, bit7 transmitted by this host */
  uint8_t Extended;   /* bit0: 29-bit identifier */
  uint8_t DataLen;    /* 0-8 */
  uint8_t Data[8];
  uint8_t TimeStampHigh; /* time stamp bits 32-39 */
} CAN_MSG;
VARNEL_STATIC_ASSERT(sizeof(CAN_MSG) == 20, "CAN_MSG is 20 bytes");

/* CAN FD message, 76 bytes. Id 0xFFFFFFFF marks a device event record. */
typedef struct CANFD_MSG {
  uint32_t Id;           /* bits 0-28 identifier, bit30 remote, bit31 extended */
  uint8_t DataLen;       /* 0-64 */
  uint8_t Flags;         /* bit0/1 FD options, bit2 FD format, bit5 channel, bit7 echo marker */
  uint8_t __Res;         /* reserved, 0 */
  uint8_t TimeStampHigh; /* time stamp bits 32-39 */
  uint32_t TimeStamp;    /* time stamp bits 0-31; on send: allowed delay in ms */
  uint8_t Data[64];
} CANFD_MSG;
VARNEL_STATIC_ASSERT(sizeof(CANFD_MSG) == 76, "CANFD_MSG is 76 bytes");

#pragma pack(pop)

/* ===== Device registry and locks ============================================================ */

/* Lock pairs that bracket one transaction on an adapter. Recursive; created on first use. */
VARNEL_API void lock(uint32_t handle);
VARNEL_API void unlock(uint32_t handle);
VARNEL_API void can_lock(uint32_t handle, uint32_t channel);
VARNEL_API void can_unlock(uint32_t handle, uint32_t channel);
VARNEL_API void can_data_lock(uint32_t handle, uint32_t channel);
VARNEL_API void can_data_unlock(uint32_t handle, uint32_t channel);
VARNEL_API void lin_lock(uint32_t handle, uint32_t channel);
VARNEL_API void lin_unlock(uint32_t handle, uint32_t channel);
VARNEL_API void pa_data_lock(uint32_t handle);
VARNEL_API void pa_data_unlock(uint32_t handle);
VARNEL_API void spi_slave_data_lock(uint32_t handle, uint32_t channel);
VARNEL_API void spi_slave_data_unlock(uint32_t handle, uint32_t channel);
/* The global lock; the same mutex serialises USB scans and reconnection. */
VARNEL_API void lock_all(void);
VARNEL_API void unlock_all(void);
/* Removes the handle's channel-0 entry from all six lock registries. */
VARNEL_API void lock_cleanup(uint32_t handle);

/* ===== USB adapters ========================================================================= */

/* Fills pDevHandle (may be NULL) with every known adapter's handle, in discovery order; the
 * array must hold VARNEL_MAX_DEVICES entries. Returns the count or a negative libusb code. */
#define VARNEL_MAX_DEVICES 60
VARNEL_API int USB_ScanDevice(DevHandle* pDevHandle);
VARNEL_API bool USB_OpenDevice(DevHandle DevHandle);
VARNEL_API bool USB_CloseDevice(DevHandle DevHandle);
VARNEL_API bool USB_ResetDevice(DevHandle DevHandle);
VARNEL_API bool USB_RetryConnect(DevHandle DevHandle);
VARNEL_API bool USB_WaitResume(DevHandle DevHandle, int TimeOutMs);

/* ===== Network adapters ===================================================================== */

/* Adapters on the local /24 network: a UDP probe to its broadcast address (port 1025) finds them,
 * each is then reached over TCP (port 8000). Adapters found stay listed for the process's life.
 *
 * NET_ScanDevice probes for TimeOutMs (clamped to 200..10000 ms) and fills pDevHandle, which must
 * hold VARNEL_MAX_DEVICES handles, with every adapter listed so far. Returns their number, -1 for a
 * NULL argument or a bad address (also 0.0.0.0 and 255.255.255.255), -3 no UDP socket, -4 the
 * probe could not be sent, 1 when the UDP socket could not be closed. */
VARNEL_API int NET_ScanDevice(const char* pLocalIP, uint32_t* pDevHandle, int TimeOutMs);
/* Opens the TCP connection of a scanned adapter (false for one never scanned). Transactions also
 * connect on demand. */
VARNEL_API bool NET_ConnectDevice(DevHandle DevHandle);
/* Takes the connection down (false when there was none). A transaction running on it in another
 * thread finishes first; the socket closes when it is done. */
VARNEL_API bool NET_DisconnectDevice(DevHandle DevHandle);

/* ===== Device information and housekeeping ================================================== */

/* The 88-byte device information record, copied from the adapter as it lies (little-endian
 * words). Layout of the virtual adapter's firmware; see docs/virtual-adapter.md. */
#pragma pack(push, 1)
typedef struct DEVICE_INFO {
  char FirmwareName[32];    /* NUL-padded text */
  char BuildDate[32];       /* firmware build date and time, NUL-padded text */
  uint32_t HardwareVersion; /* bytes 64..67 */
  uint32_t FirmwareVersion; /* bytes 68..71 */
  uint32_t SerialNumber[3]; /* bytes 72..83 */
  uint32_t FunctionsLength; /* bytes 84..87: length of the function string */
} DEVICE_INFO;
VARNEL_STATIC_ASSERT(sizeof(DEVICE_INFO) == 88, "DEVICE_INFO is 88 bytes");
#pragma pack(pop)

/* Buffer sizes the calls below fill at most. */
#define VARNEL_DEV_FUNCTION_STRING_SIZE 201 /* 200 characters and the NUL */
#define VARNEL_DEV_HARDWARE_INFO_SIZE 64
#define VARNEL_DEV_TIMESTAMP_SIZE 8     /* DEV_GetTimestamp stores at most 8 bytes */
#define VARNEL_DEV_IP_ADDR_SIZE 16      /* DEV_SetIPAddr sends, DEV_GetIPAddr stores 16 */
#define VARNEL_DEV_BUILD_TIME_SIZE 20   /* "YYYY-MM-DD HH:MM:SS" and the NUL */
#define VARNEL_DEV_USER_DATA_SIZE 20480 /* the user-data area in the adapter's flash */

/* Fills *pDevInfo with the first 88 bytes of the adapter's answer and, when pFunctionString is
 * not NULL, the function string (buffer of VARNEL_DEV_FUNCTION_STRING_SIZE; false for a string
 * longer than 200 characters, after the record has been filled). */
VARNEL_API bool DEV_GetDeviceInfo(DevHandle DevHandle, DEVICE_INFO* pDevInfo,
                                  char* pFunctionString);
/* 64 bytes; false unless exactly 64 came and the first is neither 0 nor 255. */
VARNEL_API bool DEV_GetHardwareInfo(DevHandle DevHandle, uint8_t* pHardwareInfo);
/* User data: offsets are multiples of 4; a write takes at most VARNEL_DEV_USER_DATA_SIZE bytes.
 * A read stores at most DataLen bytes and is true whenever a reply was read, whatever its length
 * (fewer bytes when the area ends first; over USB at most 0x80000): VARNEL_DEV_ReadUserDataN
 * tells how many came. */
VARNEL_API bool DEV_EraseUserData(DevHandle DevHandle);
VARNEL_API bool DEV_EraseUserDataSector(DevHandle DevHandle, uint32_t Sector);
VARNEL_API bool DEV_WriteUserData(DevHandle DevHandle, int32_t OffsetAddr,
                                  const uint8_t* pWriteData, int32_t DataLen);
VARNEL_API bool DEV_ReadUserData(DevHandle DevHandle, uint32_t OffsetAddr, uint8_t* pReadData,
                                 uint32_t DataLen);
/* Extension: DEV_ReadUserData that returns the bytes that arrived (0..DataLen), or -7 (offset not
 * a multiple of 4, no buffer), -2 (request not written), -4 (no reply read). */
VARNEL_API int VARNEL_DEV_ReadUserDataN(DevHandle DevHandle, uint32_t OffsetAddr,
                                        uint8_t* pReadData, uint32_t DataLen);
VARNEL_API bool DEV_SetPowerLevel(DevHandle DevHandle, uint8_t PowerLevel);
/* The timer chosen by TimerIndex (virtual adapter: 0 microseconds, 1 milliseconds, 8 bytes
 * big-endian) into pTimestamp; false unless exactly VARNEL_DEV_TIMESTAMP_SIZE bytes came. */
VARNEL_API bool DEV_GetTimestamp(DevHandle DevHandle, uint8_t TimerIndex, uint8_t* pTimestamp);
/* The device time in milliseconds (8 bytes in the host's byte order, little-endian); 0 when the
 * command could not be written, -1 when the reply could not be read. */
VARNEL_API int64_t DEV_GetTimestampMs(DevHandle DevHandle);
VARNEL_API bool DEV_ResetTimestamp(DevHandle DevHandle);
/* Sends the host wall clock (ms since 1970, 8 bytes in host byte order) and records it as the
 * device's last, and on the first call also first, correction time. */
VARNEL_API bool DEV_CorrectionTimestamp(DevHandle DevHandle);
/* pIPAddr: VARNEL_DEV_IP_ADDR_SIZE bytes of address text (sent as they lie) / received. */
VARNEL_API bool DEV_SetIPAddr(DevHandle DevHandle, const char* pIPAddr);
VARNEL_API bool DEV_GetIPAddr(DevHandle DevHandle, char* pIPAddr);
/* The library's build time as "YYYY-MM-DD HH:MM:SS" (VARNEL_DEV_BUILD_TIME_SIZE bytes). */
VARNEL_API bool DEV_GetDllBuildTime(char* pBuildTime);

/* ===== Logging and timing =================================================================== */

/* Does nothing; kept so that applications written for it link. */
VARNEL_API void DEBUG_SetHandle(void);
/* Opens path for appending (created if missing) as the process-wide log file. 0 when open, -1
 * otherwise (NULL path, missing directory, no permission). A log opened earlier is closed first.
 * The library writes nothing to it: applications use it to switch their own logging on and off.
 * Not guarded: start and stop the log from one thread. */
VARNEL_API int DEBUG_StartLogToFile(const char* path);
/* Closes the log file if one is open. Always 0. */
VARNEL_API int DEBUG_StopLog(void);
/* Busy-wait on the monotonic high-resolution counter until strictly more than Us microseconds
 * have passed (0 or less: until the counter has moved). Never yields the CPU. */
VARNEL_API void delay_us(int32_t Us);
/* As delay_us for Ms x 1000 microseconds, the product taken in 32 bits: values above 2,147,483 ms
 * wrap (2,147,484 returns at once, 4,294,968 waits 704 us). Use sleep_ms for long waits. */
VARNEL_API void delay_ms(uint32_t Ms);
/* Yields the thread for Ms milliseconds. */
VARNEL_API void sleep_ms(uint32_t Ms);

/* ===== CAN ================================================================================== */

/* Channels 0 and 1. Adapters whose handle has the top nibble 0x5 carry a CAN FD controller: on
 * them every CAN_ call is carried out by the matching CANFD_ call with the records converted
 * (time stamps: CAN FD units are ten times finer than classic ones, see docs/can.md). */
#pragma pack(push, 1)
typedef struct CAN_INIT_CONFIG {
  uint32_t Prescaler;        /* only the low 16 bits reach the device */
  uint8_t Sjw;               /* time quanta, 1-based; 0 counts as 1 */
  uint8_t Bs1;               /* propagation + phase 1, time quanta */
  uint8_t Bs2;               /* phase 2, time quanta */
  uint8_t Mode;              /* bits 0-1 operating mode (0 normal), bit 7 device option */
  uint8_t ControllerOption1; /* bit 0 only */
  uint8_t ControllerOption2;
  uint8_t ControllerOption3;
  uint8_t ControllerOption4;
} CAN_INIT_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(CAN_INIT_CONFIG) == 12, "CAN_INIT_CONFIG is 12 bytes");

typedef struct CAN_STATUS {
  uint32_t ControllerStatus; /* the controller's status word */
  uint32_t ErrorStatus;      /* error status word E */
  uint8_t RxErrorCounter;    /* E bits 24-31 */
  uint8_t TxErrorCounter;    /* E bits 16-23 */
  uint8_t LastErrorCode;     /* (E >> 4) & 7 */
  uint8_t ErrorFlags;        /* E & 7: bit 0 warning, bit 1 passive, bit 2 bus off */
} CAN_STATUS;
VARNEL_STATIC_ASSERT(sizeof(CAN_STATUS) == 12, "CAN_STATUS is 12 bytes");
#pragma pack(pop)

/* Receive queues hold at most this many records per channel; the oldest is dropped first. A
 * CAN_GetMsg buffer must hold this many records. */
#define VARNEL_CAN_QUEUE_SIZE 50000

/* 0, or -4 when the bit rate is not a row of the handle's table (no search, exact rates only). */
VARNEL_API int CAN_GetCANSpeedArg(DevHandle DevHandle, CAN_INIT_CONFIG* pInitConfig,
                                  uint32_t SpeedBps);
VARNEL_API int CAN_Init(DevHandle DevHandle, uint8_t CANIndex, CAN_INIT_CONFIG* pInitConfig);
VARNEL_API int CAN_Init2(DevHandle DevHandle, uint8_t CANIndex, uint32_t SpeedBps);
/* Returns the frames the device accepted; rewrites Flags in the caller's array (bit 7 and the
 * channel in bits 5-6). */
VARNEL_API int CAN_SendMsg(DevHandle DevHandle, uint8_t CANIndex, CAN_MSG* pCanSendMsg,
                           uint32_t SendMsgNum);
/* TimeStamp of each record: microseconds the device keeps between this frame and the next. */
VARNEL_API int CAN_SendMsgWithTime(DevHandle DevHandle, uint8_t CANIndex, CAN_MSG* pCanSendMsg,
                                   uint32_t SendMsgNum);
/* Returns when the device has put the frames on the bus: the frames sent. */
VARNEL_API int CAN_SendMsgSynch(DevHandle DevHandle, uint8_t CANIndex, CAN_MSG* pCanSendMsg,
                                uint32_t SendMsgNum);
/* Moves every queued record (up to VARNEL_CAN_QUEUE_SIZE) into pCanGetMsg. Without the poller it
 * first fetches what waits in the device. */
VARNEL_API int CAN_GetMsg(DevHandle DevHandle, uint8_t CANIndex, CAN_MSG* pCanGetMsg);
VARNEL_API int CAN_GetMsgWithSize(DevHandle DevHandle, uint8_t CANIndex, CAN_MSG* pCanGetMsg,
                                  int32_t BufferSize);
VARNEL_API int CAN_ClearMsg(DevHandle DevHandle, uint8_t CANIndex);
/* The receive poller: one thread per adapter fetching polled channels every 10 ms. */
VARNEL_API int CAN_StartGetMsg(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CAN_StopGetMsg(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CAN_GetStatus(DevHandle DevHandle, uint8_t CANIndex, CAN_STATUS* pCANStatus);
VARNEL_API int CAN_Stop(DevHandle DevHandle, uint8_t CANIndex);
/* Start time: host wall-clock milliseconds at device time 0. -4 for a bad index or channel. */
VARNEL_API int64_t CAN_GetStartTime(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CAN_ResetStartTime(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CAN_SetStartTime(DevHandle DevHandle, uint8_t CANIndex, uint64_t StartTime);
/* Bus time of the frame in microseconds (stuffed bit length with the CRC, no interframe space). */
VARNEL_API int CAN_GetMsgSendTimeUs(const CAN_MSG* pCanMsg, int32_t SpeedBps);

/* ===== CAN FD =============================================================================== */

#pragma pack(push, 1)
typedef struct CANFD_INIT_CONFIG {
  uint8_t Mode;         /* 0 normal; other values passed to the device */
  uint8_t Option;       /* option byte (1 from the tables) */
  uint8_t FrameFormat;  /* 3 from the CAN FD tables, 1 from the classic-only ones */
  uint8_t DeviceOption; /* device option byte */
  uint8_t NomPrescaler; /* arbitration phase */
  uint8_t NomSeg1;
  uint8_t NomSeg2;
  uint8_t NomSjw;
  uint8_t DataPrescaler; /* data phase; 0 when the adapter has no data table */
  uint8_t DataSeg1;
  uint8_t DataSeg2;
  uint8_t DataSjw;
  uint8_t DelayCompensation; /* 5 for data rates of 8 Mbit/s and more, else 0 */
  uint8_t Reserved[7];
} CANFD_INIT_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(CANFD_INIT_CONFIG) == 20, "CANFD_INIT_CONFIG is 20 bytes");
#pragma pack(pop)

/* Records with Id VARNEL_CANFD_EVENT_ID are device events: Data[0..7] carry the event. */
#define VARNEL_CANFD_EVENT_ID 0xFFFFFFFFu

VARNEL_API int CANFD_GetCANSpeedArg(DevHandle DevHandle, CANFD_INIT_CONFIG* pInitConfig,
                                    uint32_t SpeedBpsNBT, uint32_t SpeedBpsDBT);
VARNEL_API int CANFD_Init(DevHandle DevHandle, uint8_t CANIndex, CANFD_INIT_CONFIG* pInitConfig);
VARNEL_API int CANFD_Init2(DevHandle DevHandle, uint8_t CANIndex, uint32_t SpeedBpsNBT,
                           uint32_t SpeedBpsDBT, uint8_t DeviceOption, uint8_t Option);
/* Time-out 1000 ms + the sum of the records' TimeStamp values (ms each frame may take). */
VARNEL_API int CANFD_SendMsg(DevHandle DevHandle, uint8_t CANIndex, CANFD_MSG* pCanSendMsg,
                             uint32_t SendMsgNum);
VARNEL_API int CANFD_SendMsgTimeout(DevHandle DevHandle, uint8_t CANIndex, CANFD_MSG* pCanSendMsg,
                                    uint32_t SendMsgNum, uint32_t TimeOutMs);
VARNEL_API int CANFD_GetMsg(DevHandle DevHandle, uint8_t CANIndex, CANFD_MSG* pCanGetMsg,
                            int32_t BufferSize);
VARNEL_API int CANFD_ClearMsg(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CANFD_StartGetMsg(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CANFD_StopGetMsg(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CANFD_Stop(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int64_t CANFD_GetStartTime(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CANFD_ResetStartTime(DevHandle DevHandle, uint8_t CANIndex);
VARNEL_API int CANFD_SetStartTime(DevHandle DevHandle, uint8_t CANIndex, uint64_t StartTime);

/* ----- CAN extensions: not part of the adapter's original interface (docs/can.md) ----------- */

/* Timed CAN FD send, the twin of CAN_SendMsgWithTime (which CAN FD adapters route here): each
 * record's TimeStamp is the gap in microseconds the device keeps after the frame before the next.
 * The caller's records are left unchanged. Returns the frames the device accepted; -2; -4. */
VARNEL_API int CANFD_SendMsgWithTime(DevHandle DevHandle, uint8_t CANIndex, CANFD_MSG* pCanSendMsg,
                                     uint32_t SendMsgNum);

/* What the receive path of one channel lost and why it stopped. On CAN FD adapters it reports
 * the CAN FD queues and poller, which the CAN_ calls use there too. */
#pragma pack(push, 1)
typedef struct VARNEL_RECEIVE_STATS {
  uint64_t ApplicationDropped; /* frames the full application queue dropped, oldest first */
  uint64_t DiagnosticDropped;  /* the same for the diagnostic queue */
  uint64_t FetchesDropped;     /* frames of fetches dropped whole as garbage (over 5000) */
  int32_t PollerRunning;       /* 1 while the receive poller fetches this channel, else 0 */
  int32_t PollerStopResult;    /* result of the fetch that stopped the poller; 0 if none did */
  int32_t StatusResult;        /* CAN_GetStatus's result for Status (0, -2, -4) */
  CAN_STATUS Status;           /* the controller's error state (zero when StatusResult < 0) */
} VARNEL_RECEIVE_STATS;
VARNEL_STATIC_ASSERT(sizeof(VARNEL_RECEIVE_STATS) == 48, "VARNEL_RECEIVE_STATS is 48 bytes");
#pragma pack(pop)

/* 0; -7 for a NULL record; -4 for channel over 1 or a handle without a device index. The
 * record is filled whenever the result is 0, whatever StatusResult says. */
VARNEL_API int VARNEL_CAN_GetReceiveStats(DevHandle DevHandle, uint8_t CANIndex,
                                          VARNEL_RECEIVE_STATS* pStats);

/* Waits for a frame without the receive poller's delay: fetches from the adapter now and, until
 * the channel's application queue holds a record or TimeOutMs passes, again every 0.2 ms (with
 * or without the poller running). Takes nothing from the queue. The number of records queued,
 * 0 at the time-out, the failed fetch's result (-2, -4), -4 for a bad channel or a handle without
 * a device index, -7 for a negative time-out. */
VARNEL_API int VARNEL_CAN_WaitMsg(DevHandle DevHandle, uint8_t CANIndex, int32_t TimeOutMs);

/* ----- CAN filters, schedules and the relay: services the adapter runs on its own ----------- */

/* One acceptance filter, 28 bytes. Mask mode passes a frame whose identifier matches ID in the
 * bits of MASK; list mode passes exactly ID. No enabled filter on a channel: every frame passes. */
#pragma pack(push, 1)
typedef struct CAN_FILTER_CONFIG {
  uint8_t Enable;      /* 1 enable, 0 disable this filter */
  uint8_t FilterIndex; /* 0-13 within the channel */
  uint8_t FilterMode;  /* 0 mask mode, 1 list mode */
  uint8_t ExtFrame;    /* 1 when the identifier is 29-bit */
  uint32_t ID;
  uint32_t IdIDE; /* the identifier's IDE bit (bit 0) */
  uint32_t IdRTR; /* the identifier's RTR bit (bit 0) */
  uint32_t Mask;
  uint32_t MaskIDE; /* the mask's IDE bit (bit 0) */
  uint32_t MaskRTR; /* the mask's RTR bit (bit 0) */
} CAN_FILTER_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(CAN_FILTER_CONFIG) == 28, "CAN_FILTER_CONFIG is 28 bytes");

/* A CAN FD adapter's filter entry, 12 bytes: words with bit 31 the IDE bit and bit 30 RTR. */
typedef struct CANFD_FILTER_CONFIG {
  uint8_t Enable;
  uint8_t Index; /* 0-13 */
  uint8_t Reserved[2];
  uint32_t ID;   /* identifier | IDE << 31 | RTR << 30 */
  uint32_t Mask; /* 0xFFFFFFFF: exactly ID */
} CANFD_FILTER_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(CANFD_FILTER_CONFIG) == 12, "CANFD_FILTER_CONFIG is 12 bytes");
#pragma pack(pop)

/* 0; -2 not written; -4 not read or refused. */
VARNEL_API int CAN_Filter_Init(DevHandle DevHandle, uint8_t CANIndex, CAN_FILTER_CONFIG* pFilter);
/* Count 0 disables the channel's 14 filters; otherwise filter i passes exactly pIDList[i] (bit 31
 * 29-bit, bit 30 remote; at most 14). The first error, or 0. */
VARNEL_API int CAN_FilterList_Init(DevHandle DevHandle, uint8_t CANIndex, uint32_t* pIDList,
                                   uint8_t IDListLen);
/* Extension: the CAN FD adapters' filter command (docs/can.md). */
VARNEL_API int CANFD_SetFilter(DevHandle DevHandle, uint8_t CANIndex, CANFD_FILTER_CONFIG* pFilters,
                               uint8_t Count);

/* Cyclic sending held by the adapter: TableCount tables, table i with pCounts[i] records (taken
 * in order from pMsgs) and the 2 bytes at pTableValues[2i] as they lie in memory (our firmware:
 * the table's period in ms, little-endian). Each record's TimeStamp goes to the device unchanged
 * (our firmware: its offset in ms within the period). -4 without a transaction when the schedule
 * is too large. */
VARNEL_API int CAN_SetSchedule(DevHandle DevHandle, uint8_t CANIndex, CAN_MSG* pMsgs,
                               uint8_t* pCounts, uint8_t* pTableValues, uint8_t TableCount);
VARNEL_API int CAN_UpdateSchedule(DevHandle DevHandle, uint8_t CANIndex, uint8_t TableIndex,
                                  uint8_t FirstMsgIndex, CAN_MSG* pMsgs, uint8_t Count);
/* The three bytes go to the device in order (our firmware: the table, 0xFF for all; the number of
 * periods to play, 0 for no end; an option byte, 0). */
VARNEL_API int CAN_StartSchedule(DevHandle DevHandle, uint8_t CANIndex, uint8_t Table,
                                 uint8_t Periods, uint8_t Option);
VARNEL_API int CAN_StopSchedule(DevHandle DevHandle, uint8_t CANIndex);
/* 0 when the adapter echoes the state, else -4 (our firmware: 1 forwards frames between the two
 * channels when they sit on different buses). */
VARNEL_API int CAN_SetRelay(DevHandle DevHandle, uint8_t RelayState);

/* ----- UDS on CAN: ISO 15765-2 transport (single, first, consecutive, flow control frames) --- */

/* Kept per adapter and channel (channel AND 1); all zero until CAN_UDS_Config. */
#pragma pack(push, 1)
typedef struct CAN_UDS_CONFIG {
  uint8_t STmin;       /* ms between consecutive frames; 0: the receiver's flow control decides */
  uint8_t BlockSize;   /* frames per block; 0: the receiver's flow control decides */
  uint8_t FillByte;    /* the frame bytes a message does not use */
  uint8_t Reserved;    /* stored, not read */
  uint32_t FlowWaitMs; /* how long a request waits for flow control; 0 means 1000 */
} CAN_UDS_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(CAN_UDS_CONFIG) == 8, "CAN_UDS_CONFIG is 8 bytes");

/* Addressing of one exchange. The calls may rewrite Flags and FrameLen. */
typedef struct CAN_UDS_ADDR {
  uint32_t ReqID;   /* identifier of the frames sent */
  uint32_t ResID;   /* identifier of the frames accepted */
  uint8_t Flags;    /* bit 0 29-bit identifiers; bit 1 CAN FD frames; bits 1+2 bit-rate switch;
                       bit 7 the smallest CAN FD frame that holds the data */
  uint8_t ExtAddr;  /* non-zero: extended addressing, AddrByte in front of every frame */
  uint8_t AddrByte; /* the extended address */
  uint8_t FrameLen; /* frame data length 8..64 (CAN FD); any other value means 8 */
} CAN_UDS_ADDR;
VARNEL_STATIC_ASSERT(sizeof(CAN_UDS_ADDR) == 12, "CAN_UDS_ADDR is 12 bytes");
#pragma pack(pop)

/* Result codes of the UDS calls, beside the send calls' own (-2, -4). */
#define CAN_UDS_ERR_SEND_COUNT (-99) /* the adapter took another number of frames than sent */
#define CAN_UDS_ERR_TIMEOUT (-101)   /* no flow control / no whole message in time */
#define CAN_UDS_ERR_SEQUENCE (-103)  /* consecutive frame out of sequence */
#define CAN_UDS_ERR_FRAME (-105)     /* bad protocol byte, or a single frame longer than itself */
#define CAN_UDS_ERR_OVERFLOW (-107)  /* the receiver answered flow control with overflow */
#define CAN_UDS_ERR_DEVICE (-108)    /* no device index 0..59 for the handle */
#define VARNEL_CAN_UDS_ERR_SIZE                                     \
  (-109) /* extension: the message does not fit the caller's buffer \
          */

VARNEL_API int CAN_UDS_Config(DevHandle DevHandle, uint8_t CANIndex, CAN_UDS_CONFIG* pConfig);
/* Sends a message of DataLen bytes; 0 when every frame went out. */
VARNEL_API int CAN_UDS_Request(DevHandle DevHandle, uint8_t CANIndex, CAN_UDS_ADDR* pAddr,
                               uint8_t* pReqData, int32_t DataLen);
/* Receives one message from ResID within TimeOutMs: its length. pResData must hold the whole
 * message, however long the sender announces it: VARNEL_CAN_UDS_ResponseN bounds it. */
VARNEL_API int CAN_UDS_Response(DevHandle DevHandle, uint8_t CANIndex, CAN_UDS_ADDR* pAddr,
                                uint8_t* pResData, int32_t TimeOutMs);
/* Extension: CAN_UDS_Response into a buffer of `Size` bytes; a longer message gives -109 as soon
 * as its length is known, with nothing written past the buffer. */
VARNEL_API int VARNEL_CAN_UDS_ResponseN(DevHandle DevHandle, uint8_t CANIndex, CAN_UDS_ADDR* pAddr,
                                        uint8_t* pResData, uint32_t Size, int32_t TimeOutMs);
/* Extension: flow control read as ISO 15765-2 reads it, kept per adapter and channel (off until
 * set): STmin F1..F9 are 100..900 us and the reserved codes 127 ms (off: above 127 counts as 0),
 * and every "wait" frame starts the flow control wait again (off: one wait from the first). 0, or
 * -108 when the handle has no device index. */
VARNEL_API int VARNEL_CAN_UDS_SetIsoTiming(DevHandle DevHandle, uint8_t CANIndex, int On);

/* ===== LIN ================================================================================== */

/* Channels 0..7, as bus master (mode 1) or slave (mode 0). Codes: -2 the command could not be
 * written, -4 the reply could not be read, had another length or was refused (or a master call got
 * other than one record back), -5 the channel is not initialised, -7 a device index or channel out
 * of range, a NULL pointer, a count of 0 or a stored baud rate below 101. */
#define VARNEL_LIN_MAX_CHANNELS 8
#define VARNEL_LIN_BUFFER_SIZE 10001 /* LIN_EX_GetMsg keeps at most this many frames a channel */

/* MsgType */
#define LIN_EX_MSG_TYPE_MW 1 /* master write: header and data */
#define LIN_EX_MSG_TYPE_MR 2 /* master read: header, a slave answers */
#define LIN_EX_MSG_TYPE_SW 3 /* slave response (bit 7 may be set) */
#define LIN_EX_MSG_TYPE_SC 4 /* slave entry with its checksum computed */
#define LIN_EX_MSG_TYPE_BK 5 /* break only */
#define LIN_EX_MSG_TYPE_SR 8 /* incoming: the checksum read back as the last data byte */
#define LIN_EX_MSG_TYPE_DA 9 /* incoming: 8 data bytes, the checksum in Check */
/* CheckType: outgoing what to send; incoming the verdict on the checksum */
#define LIN_EX_CHECK_STD 0   /* classic: data only / matched the classic sum */
#define LIN_EX_CHECK_EXT 1   /* enhanced: PID and data / matched the enhanced sum */
#define LIN_EX_CHECK_USER 2  /* the caller's Check as it is / not checked */
#define LIN_EX_CHECK_NONE 3  /* no checksum / none to check */
#define LIN_EX_CHECK_ERROR 4 /* incoming: matched neither sum */

#pragma pack(push, 1)
/* One LIN frame, 20 bytes, the same in both directions and on the wire. */
typedef struct LIN_EX_MSG {
  uint32_t TimeStamp; /* out: delay or interval in ms; in: the device's time stamp (ms) */
  uint8_t MsgType;
  uint8_t CheckType;
  uint8_t DataLen; /* 0..8 */
  uint8_t Sync;    /* set to 0x55 by the library */
  uint8_t PID;     /* the 6-bit ID is enough: both parity bits are recomputed */
  uint8_t Data[8]; /* below 8 bytes, Data[DataLen] also gets the checksum */
  uint8_t Check;
  uint8_t BreakBits; /* 10..40, else 13 */
  uint8_t Tag; /* out: repeat count in schedules (0 counts as 1); in: request kind << 4 | ch */
} LIN_EX_MSG;
VARNEL_STATIC_ASSERT(sizeof(LIN_EX_MSG) == 20, "LIN_EX_MSG is 20 bytes");
#pragma pack(pop)

VARNEL_API int LIN_EX_Init(DevHandle DevHandle, uint8_t LINIndex, uint32_t BaudRate,
                           uint8_t MasterMode);
/* The three settings go to the adapter as they are (A, then C, then B). */
VARNEL_API int LIN_EX_Init2(DevHandle DevHandle, uint8_t LINIndex, uint32_t BaudRate,
                            uint8_t MasterMode, uint32_t SettingA, uint32_t SettingB,
                            uint32_t SettingC);
VARNEL_API int LIN_EX_Stop(DevHandle DevHandle, uint8_t LINIndex);
/* Sends the records (split into pieces the adapter takes) and writes what the bus returned, judged,
 * to pOutMsg: the number of records returned. */
VARNEL_API int LIN_EX_MasterSync(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pInMsg,
                                 LIN_EX_MSG* pOutMsg, uint32_t MsgLen);
VARNEL_API int LIN_EX_MasterBreak(DevHandle DevHandle, uint8_t LINIndex);
VARNEL_API int LIN_EX_MasterWrite(DevHandle DevHandle, uint8_t LINIndex, uint8_t PID,
                                  uint8_t* pData, uint8_t DataLen, uint8_t CheckType);
/* pData: 8 bytes, zeroed first. The number of data bytes read; 0 for a bad checksum. */
VARNEL_API int LIN_EX_MasterRead(DevHandle DevHandle, uint8_t LINIndex, uint8_t PID,
                                 uint8_t* pData);
/* Plays the records once as a schedule and collects what the bus returned: the number received
 * (at most MsgLen are written). Sets Tag to 1 in pInMsg. */
VARNEL_API int LIN_EX_MasterSendMsg(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pInMsg,
                                    LIN_EX_MSG* pOutMsg, uint32_t MsgLen);
VARNEL_API int LIN_EX_MasterStartSch(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pMsg,
                                     uint32_t MsgLen);
VARNEL_API int LIN_EX_MasterStopSch(DevHandle DevHandle, uint8_t LINIndex);
/* pMsg must hold the whole schedule (at most 128 records). */
VARNEL_API int LIN_EX_MasterGetSch(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pMsg);
VARNEL_API int LIN_EX_MasterGetSchState(DevHandle DevHandle, uint8_t LINIndex);
VARNEL_API int LIN_EX_MasterSetSchRunTimes(DevHandle DevHandle, uint8_t LINIndex,
                                           uint32_t RunTimes);
VARNEL_API int LIN_EX_SlaveSetIDMode(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pLINMsg,
                                     uint32_t MsgLen);
/* pLINMsg must hold the adapter's whole slave table (VARNEL_LIN_SLAVE_TABLE_SIZE records). */
VARNEL_API int LIN_EX_SlaveGetIDMode(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pLINMsg);
VARNEL_API int LIN_EX_SetSlaveRespData(DevHandle DevHandle, uint8_t LINIndex, uint8_t PID,
                                       uint8_t BytesPerFrame, uint8_t* pData, uint32_t DataLen,
                                       uint8_t CheckType, int32_t Mode);
VARNEL_API int LIN_EX_StopSlaveResp(DevHandle DevHandle, uint8_t LINIndex, uint8_t PID);
/* pLINMsg must hold VARNEL_LIN_FETCH_SIZE records. */
VARNEL_API int LIN_EX_SlaveGetData(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pLINMsg);
/* Frames the channel saw, through the host buffer: up to MaxMsgNum, oldest first. */
VARNEL_API int LIN_EX_GetMsg(DevHandle DevHandle, uint8_t LINIndex, LIN_EX_MSG* pLINMsg,
                             int32_t MaxMsgNum);
/* 0 off, 5 and 12 volts (13 and more count as 12). */
VARNEL_API int LIN_EX_CtrlPowerOut(DevHandle DevHandle, uint8_t LINIndex, uint8_t State);
/* The battery voltage in mV. */
VARNEL_API int LIN_EX_GetVbatValue(DevHandle DevHandle, uint16_t* pBatValue);
VARNEL_API int LIN_EX_SetBusState(DevHandle DevHandle, uint8_t LINIndex, uint8_t State);
VARNEL_API int LIN_EX_ResetStartTime(DevHandle DevHandle, uint8_t LINIndex);
VARNEL_API int LIN_EX_SetStartTime(DevHandle DevHandle, uint8_t LINIndex, uint64_t StartTime);
VARNEL_API int64_t LIN_EX_GetStartTime(DevHandle DevHandle, uint8_t LINIndex);
#define VARNEL_LIN_SLAVE_TABLE_SIZE 64 /* records LIN_EX_SlaveGetIDMode may write */
#define VARNEL_LIN_FETCH_SIZE 512      /* records LIN_EX_SlaveGetData may write */

/* Diagnostic messages over a LIN channel in master mode: master request frames (ReqID, usually
 * 3C) and slave response frames (ResID, usually 3D) of 8 bytes, the node address first, then the
 * PCI. Codes besides those above: -98 a single frame could not be sent, -99 its echo or a batch of
 * frames did not come back as sent, -101 no complete response in time, -103 a consecutive frame
 * out of sequence, -105 a bad PCI, -109 (extension) a response longer than the buffer. */
#pragma pack(push, 1)
typedef struct LIN_UDS_ADDR {
  uint8_t ReqID;
  uint8_t ResID;
  uint8_t NAD;
  uint8_t CheckType;
  uint8_t FrameSpacing; /* ms between frames */
} LIN_UDS_ADDR;
VARNEL_STATIC_ASSERT(sizeof(LIN_UDS_ADDR) == 5, "LIN_UDS_ADDR is 5 bytes");
#pragma pack(pop)
/* A request of up to 4095 bytes (longer ones are cut to 4095). */
VARNEL_API int LIN_UDS_Request(DevHandle DevHandle, uint8_t LINIndex, LIN_UDS_ADDR* pUDSAddr,
                               uint8_t* pReqData, int32_t DataLen);
/* The response's length; pResData must hold what the ECU announces (4095 bytes, or the 32-bit
 * length of a first frame whose 12-bit length is 0). VARNEL_LIN_UDS_ResponseN bounds it. */
VARNEL_API int LIN_UDS_Response(DevHandle DevHandle, uint8_t LINIndex, LIN_UDS_ADDR* pUDSAddr,
                                uint8_t* pResData, int32_t TimeOutMs);
VARNEL_API int VARNEL_LIN_UDS_ResponseN(DevHandle DevHandle, uint8_t LINIndex,
                                        LIN_UDS_ADDR* pUDSAddr, uint8_t* pResData, uint32_t ResSize,
                                        int32_t TimeOutMs);
/* The raw frames of the last request, oldest first: the number moved. */
VARNEL_API int LIN_UDS_GetMsgFromUDSBuffer(DevHandle DevHandle, uint8_t LINIndex,
                                           LIN_EX_MSG* pLINMsg, int32_t MaxMsgNum);

/* Reprogramming a LIN control unit at node address NAD over its boot loader's transport (frames
 * on 3C and 3D, classic checksums). Codes besides those above: -8 a frame did not come back as
 * sent (or the wake-up record of USDLINBoot_Init did not), -9 a response frame could not be read,
 * -10 a wrong answer, -11 no programming session before the time-out, -12 a message longer than
 * 4095 bytes, -13 a bad download answer, -14 a transfer counter not echoed. A positive result is
 * the number of frames that came back when fewer did. Security access: the key is the seed
 * rotated left by 5 bits, XOR KeyConstant (our targets' key routine) unless
 * VARNEL_USDLINBoot_SetKeyRoutine set another. Any NAD goes out as given (7F: whichever node is
 * there; 00 too). An answer is read frame by frame, each next frame within 1 s (a frame with a
 * bad checksum, filler or another kind of frame is passed over); then -9. */
VARNEL_API int USDLINBoot_Init(DevHandle DevHandle, uint8_t LINIndex, uint32_t BaudRate);
VARNEL_API int USDLINBoot_Start(DevHandle DevHandle, uint8_t LINIndex, uint8_t NAD,
                                uint16_t KeyConstant, uint32_t TimeOutMs);
VARNEL_API int USDLINBoot_Erase(DevHandle DevHandle, uint8_t LINIndex, uint8_t NAD,
                                uint32_t StartAddr, uint32_t Size);
VARNEL_API int USDLINBoot_WriteData(DevHandle DevHandle, uint8_t LINIndex, uint8_t NAD,
                                    uint32_t StartAddr, uint8_t* pData, uint32_t Size);
VARNEL_API int USDLINBoot_MemCheck(DevHandle DevHandle, uint8_t LINIndex, uint8_t NAD,
                                   uint32_t CheckValue);
VARNEL_API int USDLINBoot_ResetECU(DevHandle DevHandle, uint8_t LINIndex, uint8_t NAD);
/* Extension: USDLINBoot_MemCheck that also gives the routine's status byte (byte 4 of the results
 * answer; our targets: 0 the CRC-32 of the last download matches CheckValue, 1 not). */
VARNEL_API int VARNEL_USDLINBoot_MemCheckResult(DevHandle DevHandle, uint8_t LINIndex, uint8_t NAD,
                                                uint32_t CheckValue, uint8_t* pStatus);
/* Extension: the target's key routine for security access, per adapter and LIN channel (0..7):
 * called with the seed (bytes 2..3 of the seed answer, big-endian) and the KeyConstant of
 * USDLINBoot_Start, it returns the two key bytes (sent high byte first). NULL restores the
 * default. 0, -7 for a channel of 8 or more, -1 for a handle no scan listed. The routine is
 * called in the thread that calls USDLINBoot_Start. */
typedef uint16_t (*VARNEL_LIN_BOOT_KEY_ROUTINE)(uint16_t Seed, uint16_t KeyConstant);
VARNEL_API int VARNEL_USDLINBoot_SetKeyRoutine(DevHandle DevHandle, uint8_t LINIndex,
                                               VARNEL_LIN_BOOT_KEY_ROUTINE Routine);

/* The older LIN calls, on both generations of adapter firmware: LIN_Init reads the firmware
 * version (below 1.5.0.30 the adapter takes the old commands), then every call either sends its
 * old command or runs the LIN_EX_ calls with the records translated. Old firmware has channels 0
 * and 1. Codes as above; -4 also when the LIN_EX_ path did not return every record. */
#pragma pack(push, 1)
typedef struct LIN_MSG {
  uint8_t ID;      /* read back: the protected identifier */
  uint8_t DataLen; /* read back: data bytes + 1 (the checksum counted), 0 stays 0 */
  uint8_t Data[8];
  uint8_t Check;
} LIN_MSG;
VARNEL_STATIC_ASSERT(sizeof(LIN_MSG) == 11, "LIN_MSG is 11 bytes");
typedef struct LIN_CONFIG {
  uint32_t BaudRate;
  uint8_t Config1; /* old firmware only, sent as it is */
  uint8_t MasterMode;
  uint8_t Config3; /* old firmware only, sent as it is */
} LIN_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(LIN_CONFIG) == 7, "LIN_CONFIG is 7 bytes");
#pragma pack(pop)
#define VARNEL_LIN_LEGACY_FETCH_SIZE 512 /* records LIN_SlaveGetData may write */

VARNEL_API int LIN_Init(DevHandle DevHandle, uint8_t LINIndex, LIN_CONFIG* pConfig);
VARNEL_API int LIN_SendBreak(DevHandle DevHandle, uint8_t LINIndex);
VARNEL_API int LIN_Write(DevHandle DevHandle, uint8_t LINIndex, LIN_MSG* pLINMsg, uint32_t Len);
VARNEL_API int LIN_Read(DevHandle DevHandle, uint8_t LINIndex, LIN_MSG* pLINMsg, uint32_t Len);
VARNEL_API int LIN_SlaveSetIDMode(DevHandle DevHandle, uint8_t LINIndex, uint8_t IDMode,
                                  LIN_MSG* pLINMsg, uint32_t Len);
VARNEL_API int LIN_SlaveGetData(DevHandle DevHandle, uint8_t LINIndex, LIN_MSG* pLINMsg);

/* ===== K-line and KWP2000 ================================================================== */

/* The single-wire K-line of a LIN/K channel: the channel's UART carries the bytes, pin (channel)
 * of the digital outputs (DIO_) draws the wake-up patterns, the channel's power output is
 * switched on first. Frames: Fmt (bits 7..6 address mode, 5..0 length of SID+data, 0 = a length
 * byte follows), Tgt and Src when the address mode is 2 or 3, Len, SID, data, and the sum of all
 * preceding bytes modulo 256. Codes: -5 no byte before the time-out, -6 wrong sync byte, wrong
 * inverted address or an incomplete response, -7 echo missing or different, -8 checksum error
 * (the record is still filled), -200 unknown handle (KWP_Init, KWP_5BaudInit, KWP_FastInit);
 * errors of the UART, DIO and power calls are returned as they are. See docs/kline.md. */
#define VARNEL_KLINE_DATA_SIZE 254
#define KWP_KIND_5BAUD 1
#define KWP_KIND_FAST 2
#define KWP_KIND_REQUEST 3
#define KWP_KIND_RESPONSE 4
#define KWP_STATUS_CHECKSUM 0x01 /* the sum did not match the received checksum */
#define KWP_STATUS_TIMEOUT 0x02  /* nothing came before the time-out */
#define KWP_STATUS_FRAME 0x04    /* incomplete or wrong response */
#define KWP_STATUS_ECHO 0x10     /* the echo of what was sent was missing or different */
#define KWP_ERR_UNKNOWN_HANDLE (-200)

#pragma pack(push, 1)
/* Request and response of the K_ calls, 260 bytes. In a response Data holds the bytes after the
 * SID with the received checksum last. */
typedef struct K_MSG {
  uint8_t Fmt;
  uint8_t Tgt;
  uint8_t Src;
  uint8_t Len; /* sent only when Fmt & 0x3F is 0 */
  uint8_t SID;
  uint8_t Data[VARNEL_KLINE_DATA_SIZE];
  uint8_t CheckSum;
} K_MSG;
VARNEL_STATIC_ASSERT(sizeof(K_MSG) == 260, "K_MSG is 260 bytes");

/* Record of the KWP_ calls, 268 bytes. */
typedef struct KWP_MSG {
  uint32_t TimeStamp;   /* device time at the start of the call, bits 0..31 (0: the time command
                           could not be sent, all ones: its reply could not be read) */
  uint8_t TimeStampHi;  /* bits 32..39 */
  uint8_t Kind;         /* KWP_KIND_ */
  uint8_t Status;       /* KWP_STATUS_ flags */
  uint8_t P4;           /* ms between the bytes of a request */
  uint8_t Fmt;
  uint8_t Tgt;          /* 5-baud init: the address sent */
  uint8_t Src;
  uint8_t Len;          /* length of SID + data; above 63 a length byte is used */
  uint8_t SID;
  uint8_t Data[VARNEL_KLINE_DATA_SIZE]; /* 5-baud init: 55 KB1 KB2 ~KB2 ~address */
  uint8_t CheckSum;
} KWP_MSG;
VARNEL_STATIC_ASSERT(sizeof(KWP_MSG) == 268, "KWP_MSG is 268 bytes");
#pragma pack(pop)

VARNEL_API int K_Init(DevHandle DevHandle, uint8_t Channel, uint32_t BaudRate);
VARNEL_API int K_5BaudInit(DevHandle DevHandle, uint8_t Channel, uint8_t Addr, uint8_t* pKB1,
                           uint8_t* pKB2);
VARNEL_API int K_FastInit(DevHandle DevHandle, uint8_t Channel, K_MSG* pRequest,
                          K_MSG* pResponse, uint8_t P4);
VARNEL_API int K_Request(DevHandle DevHandle, uint8_t Channel, K_MSG* pRequest, K_MSG* pResponse,
                         uint8_t P4, int32_t TimeOutMs);
/* Mode 0: UART letter 'R', mode 2: 'Z', any other: 'B' (see docs/kline.md). */
VARNEL_API int KWP_Init(DevHandle DevHandle, uint8_t Channel, uint32_t BaudRate, uint8_t Mode);
VARNEL_API int KWP_5BaudInit(DevHandle DevHandle, uint8_t Channel, uint32_t BaudRate,
                             KWP_MSG* pMsg, int32_t TimeOutMs);
VARNEL_API int KWP_FastInit(DevHandle DevHandle, uint8_t Channel, uint32_t BaudRate,
                            KWP_MSG* pInit, KWP_MSG* pRequest, KWP_MSG* pResponse,
                            uint32_t TimeOutMs);
VARNEL_API int KWP_Request(DevHandle DevHandle, uint8_t Channel, KWP_MSG* pRequest);
VARNEL_API int KWP_Response(DevHandle DevHandle, uint8_t Channel, KWP_MSG* pResponse,
                            uint32_t TimeOutMs);
/* Extension: the digital output (bit Pin, 0..31, of the DIO_ masks) that draws Channel's wake-up
 * patterns on this adapter; bit Channel until set, kept for the process's life. 0; -7 for a
 * channel of 8 or more or a pin above 31; -200 unknown handle. See docs/kline.md. */
VARNEL_API int VARNEL_KLINE_SetWakeupPin(DevHandle DevHandle, uint8_t Channel, uint8_t Pin);
/* Extension: the pin drawing Channel's wake-up patterns (0..31), or -7 / -200 as above. */
VARNEL_API int VARNEL_KLINE_GetWakeupPin(DevHandle DevHandle, uint8_t Channel);

/* ===== DBC database files =================================================================== */

/* A DBC handle is the address of a database loaded by DBC_ParserFile; 0 means none. Databases
 * live until the process ends. A handle this library did not issue counts as null (-4).
 *
 * Names and texts are copied with their terminating zero into caller memory. Every name, text
 * and value description comes from one file line of at most 8191 characters, so a buffer of
 * VARNEL_DBC_TEXT_MAX bytes is always enough (also for the "%f %s" text of DBC_GetSignalValueStr).
 *
 * Status codes: -4 null handle (or null name/output pointer), -5 index out of range or no such
 * message, -6 multiplexed signal not selected by the last frame, -7 no message of that name,
 * -9 no such message or signal. No call takes a lock: use one database from one thread at a time.
 */
#define VARNEL_DBC_TEXT_MAX 8704
typedef uint64_t DBC_HANDLE;

/* Loads a DBC file; needs an open device handle. 0 if the device is not open or the file cannot
 * be read or parsed. Every call creates a new database. */
VARNEL_API DBC_HANDLE DBC_ParserFile(DevHandle DevHandle, const char* pDBCFileName);
VARNEL_API int DBC_GetMsgQuantity(DBC_HANDLE DBCHandle);
VARNEL_API int DBC_GetMsgName(DBC_HANDLE DBCHandle, int index, char* pMsgName);
/* Compares the low 29 bits: finds an extended message with or without bit 31 in MsgID. */
VARNEL_API int DBC_GetMsgNameByID(DBC_HANDLE DBCHandle, uint32_t MsgID, char* pMsgName);
/* The stored identifier; bit 31 set (a negative result) for an extended identifier. */
VARNEL_API int DBC_GetMsgIDByName(DBC_HANDLE DBCHandle, const char* pMsgName);
VARNEL_API int DBC_GetMsgSignalQuantity(DBC_HANDLE DBCHandle, const char* pMsgName);
VARNEL_API int DBC_GetMsgSignalName(DBC_HANDLE DBCHandle, const char* pMsgName, uint32_t index,
                                    char* pSignalName);
/* The transmitter as the file writes it (a line without ';' keeps its line feed). */
VARNEL_API int DBC_GetMsgPublisher(DBC_HANDLE DBCHandle, const char* pMsgName, char* pPublisher);
VARNEL_API int DBC_SetSignalValue(DBC_HANDLE DBCHandle, const char* pMsgName,
                                  const char* pSignalName, double Value);
VARNEL_API int DBC_GetSignalValue(DBC_HANDLE DBCHandle, const char* pMsgName,
                                  const char* pSignalName, double* pValue);
/* The description from the value table, "<n>-123456" when it has none for the value, or
 * "%f %s" (value and unit) for a signal without a value table. */
VARNEL_API int DBC_GetSignalValueStr(DBC_HANDLE DBCHandle, const char* pMsgName,
                                     const char* pSignalName, char* pValueStr);
VARNEL_API int DBC_SyncCANMsgToValue(DBC_HANDLE DBCHandle, const CAN_MSG* pCANMsg, int MsgLen);
VARNEL_API int DBC_SyncCANFDMsgToValue(DBC_HANDLE DBCHandle, const CANFD_MSG* pCANFDMsg,
                                       int MsgLen);
VARNEL_API int DBC_SyncValueToCANMsg(DBC_HANDLE DBCHandle, const char* pMsgName, CAN_MSG* pCANMsg);
VARNEL_API int DBC_SyncValueToCANFDMsg(DBC_HANDLE DBCHandle, const char* pMsgName,
                                       CANFD_MSG* pCANFDMsg);

/* Extensions for tools without an adapter: load a file without the device check, list a
 * database, and decode a frame into one line ("Name(0x123): Sig=1.5 unit ...") without touching
 * the database's signal values. MsgID carries bit 31 for an extended identifier. The text
 * calls write at most Size bytes (zero-terminated, cut if needed) and return the full length,
 * or -4 (handle), -5 (no message with that identifier), -7 (bad argument). */
VARNEL_API DBC_HANDLE VARNEL_DbcLoadFile(const char* pDBCFileName);
VARNEL_API int VARNEL_DbcDescribe(DBC_HANDLE DBCHandle, char* pText, int Size);
VARNEL_API int VARNEL_DbcFormatFrame(DBC_HANDLE DBCHandle, uint32_t MsgID, const uint8_t* pData,
                                     int DataLen, char* pText, int Size);

/* Extensions for decoding as other DBC tools do, and fast. VARNEL_DbcLoadFileEx with
 * VARNEL_DBC_STANDARD reads the file the standard way: tabs separate, value types 1 and 2 are IEEE
 * single/double whatever the sign, a zero-width range is no range, SG_MUL_VAL_ selects
 * multiplexed signals, choice names are quoted in VARNEL_DbcFormatFrame's text, and a frame
 * shorter than its message is refused (-6) instead of read with zeros. Options 0 reads as
 * DBC_ParserFile does. Unknown options: 0.
 * VARNEL_DbcDecodeFrame writes the physical value of every signal of the message, in the order of
 * DBC_GetMsgSignalName, into pValues[0..Count) (NaN for a multiplexed signal the frame does not
 * select; pSelected, when not NULL, gets 1 for each signal the frame selects and 0 for the
 * others, which tells a float signal holding NaN from one not selected) and returns the
 * message's signal count; no look-up by name, and the database's own
 * signal values are left alone. VARNEL_DbcEncodeFrame builds a frame from values in that order
 * (NaN: the signal's start value) and returns its length; a value outside the signal's range is
 * refused (-8) unless Flags has VARNEL_DBC_CLAMP, and so is a value for a multiplexed signal that
 * the multiplexor values (given or start values) do not select (-6). Both: -4 handle, -5 no message
 * with that identifier, -7 bad argument (or pData shorter than the message). */
#define VARNEL_DBC_STANDARD 1u
#define VARNEL_DBC_CLAMP 1u
VARNEL_API DBC_HANDLE VARNEL_DbcLoadFileEx(const char* pDBCFileName, uint32_t Options);
VARNEL_API int VARNEL_DbcDecodeFrame(DBC_HANDLE DBCHandle, uint32_t MsgID, const uint8_t* pData,
                                     int DataLen, double* pValues, uint8_t* pSelected, int Count);
VARNEL_API int VARNEL_DbcEncodeFrame(DBC_HANDLE DBCHandle, uint32_t MsgID, const double* pValues,
                                     int Count, uint32_t Flags, uint8_t* pData, int Size);
/* VARNEL_DbcDecodeChoices: for each signal of the message, in the same order, the choice name
 * (VAL_) of the raw value the frame carries (sign-extended for signed integer signals), as DBC
 * tools key their value tables; NULL for a signal without a name for that value, a float signal
 * or one the frame does not select. The names belong to the database and stay valid as long as
 * it does. Returns the message's signal count; codes as VARNEL_DbcDecodeFrame. */
VARNEL_API int VARNEL_DbcDecodeChoices(DBC_HANDLE DBCHandle, uint32_t MsgID, const uint8_t* pData,
                                       int DataLen, const char** pNames, int Count);

/* ===== Firmware image files ================================================================= */

/* Motorola S-records, Intel HEX and address/value text become an array of contiguous segments;
 * segments become a flat binary image. Pure data calls: no device, no lock, no thread.
 * Addresses count in units of 1, 2 or 4 bytes; a segment covers StartAddr to
 * StartAddr + DataLen / unit - 1. See docs/hexfile.md for the bounds below. */
#pragma pack(push, 1)
typedef struct HEXFILE_SEGMENT {
  uint32_t StartAddr; /* in address units; 0xFFFFFFFF = unused entry */
  uint32_t DataLen;   /* bytes */
  uint8_t* pData;     /* malloc'ed by the converters, released by hexfile_free_data */
} HEXFILE_SEGMENT;
VARNEL_STATIC_ASSERT(sizeof(HEXFILE_SEGMENT) == 16, "HEXFILE_SEGMENT is 16 bytes");
#pragma pack(pop)

/* Longest line the converters accept, terminator excluded; a longer line fails the conversion. */
#define VARNEL_HEXFILE_MAX_LINE 1024
/* Largest file hexfile_load_file reads (64 MiB); larger files give -1 and touch no buffer byte. */
#define VARNEL_HEXFILE_MAX_FILE (64 * 1024 * 1024)
/* Largest image the image calls produce (1 GiB); a larger one gives 0 and writes nothing. */
#define VARNEL_HEXFILE_MAX_IMAGE (1024 * 1024 * 1024)

/* Reads the whole file into buffer (no terminator is added). Returns its size, or -1 if it cannot
 * be opened or read or is larger than VARNEL_HEXFILE_MAX_FILE. */
VARNEL_API int hexfile_load_file(const char* path, char* buffer);
/* Converters: fill at most max_segments entries (all of them are reset first) and return the
 * number of segments, or 0 on a checksum error, a malformed or overlong line, a bad text field,
 * too many segments or a bad argument. Data already allocated stays in the array either way:
 * release it with hexfile_free_data(segments, max_segments). */
VARNEL_API int hexfile_convert_s19(const char* text, int32_t length, HEXFILE_SEGMENT* segments,
                                   uint32_t max_segments, int8_t unit);
VARNEL_API int hexfile_convert_ihx(const char* text, int32_t length, HEXFILE_SEGMENT* segments,
                                   uint32_t max_segments, int8_t unit);
VARNEL_API int hexfile_convert_txt(const char* text, int32_t length, HEXFILE_SEGMENT* segments,
                                   uint32_t max_segments, int8_t unit);
/* Frees every non-null pData and clears it (pData NULL, DataLen 0). Returns 0. */
VARNEL_API int hexfile_free_data(HEXFILE_SEGMENT* segments, int32_t count);
/* Sorts the segments by StartAddr in place and writes them to a file: gaps as 0xFF bytes when
 * fill_gaps is non-zero, otherwise only the first contiguous run. Returns the bytes written, 0 on
 * bad arguments or overlapping segments (no file is created), -1 if the file cannot be written. */
VARNEL_API int hexfile_save_image(const char* path, HEXFILE_SEGMENT* segments, uint32_t count,
                                  int8_t unit, int8_t fill_gaps);
/* Sorts the segments in place and writes the image, gaps filled with fill_byte, to output, which
 * must hold the whole image (VARNEL_hexfile_convert_image_n tells its size). Returns the bytes
 * written, 0 on bad arguments or overlapping segments. */
VARNEL_API int hexfile_convert_image(uint8_t* output, HEXFILE_SEGMENT* segments, int32_t count,
                                     int8_t unit, int8_t fill_byte);

/* Extensions with bounds the calls above cannot take. */

/* Bounded file load: reads the file into buffer, which holds capacity bytes. Returns the size,
 * -1 if the file cannot be opened or read, -2 if it is larger than capacity (the buffer may then
 * hold its first capacity bytes). With buffer NULL only the size is returned (-2 above INT_MAX
 * or for a file that cannot be sized without reading it past VARNEL_HEXFILE_MAX_FILE). */
VARNEL_API int VARNEL_hexfile_load_file_n(const char* path, char* buffer, size_t capacity);
/* Bounded hexfile_convert_image: sorts the segments in place; with output NULL returns the image
 * size only; returns -2 (writing nothing) if the image is larger than capacity. */
VARNEL_API int VARNEL_hexfile_convert_image_n(uint8_t* output, size_t capacity,
                                              HEXFILE_SEGMENT* segments, int32_t count, int8_t unit,
                                              int8_t fill_byte);

/* Line check: goes through every line instead of stopping at the first bad one, for tools that
 * report where a file is broken. Kinds of problem: */
#define VARNEL_HEXFILE_S19 1
#define VARNEL_HEXFILE_IHX 2
#define VARNEL_HEXFILE_TXT 3
#define VARNEL_HEXFILE_BAD_CHECKSUM 1 /* record checksum does not match */
#define VARNEL_HEXFILE_MALFORMED 2    /* truncated record, bad hex digit, stray characters */
#define VARNEL_HEXFILE_OVERLONG 3     /* line longer than VARNEL_HEXFILE_MAX_LINE */
#define VARNEL_HEXFILE_BAD_FIELD 4    /* text line: missing or bad address/value field */
#pragma pack(push, 1)
typedef struct VARNEL_HEXFILE_PROBLEM {
  uint32_t Line; /* 1-based line number */
  int32_t Kind;  /* VARNEL_HEXFILE_BAD_CHECKSUM ... */
} VARNEL_HEXFILE_PROBLEM;
VARNEL_STATIC_ASSERT(sizeof(VARNEL_HEXFILE_PROBLEM) == 8, "VARNEL_HEXFILE_PROBLEM is 8 bytes");
#pragma pack(pop)
/* Returns the number of bad lines (storing the first max_problems of them), or -1 for a bad
 * argument (unknown format, NULL text with a length, negative length). */
VARNEL_API int VARNEL_hexfile_check(const char* text, int32_t length, int32_t format,
                                    VARNEL_HEXFILE_PROBLEM* problems, uint32_t max_problems);

/* ===== GPIO ================================================================================= */

/* Bit n of a pin mask selects pin n; only the selected pins change. Values read or written use the
 * same layout (1 = high). The library keeps no GPIO state and checks no argument: the adapter
 * refuses what it cannot do, which shows as -4. Pull modes are the adapter's (the virtual adapter:
 * VARNEL_GPIO_PULL_NONE/UP/DOWN).
 * Results: 0 success, -2 the command could not be written, -4 no reply, or a reply of another
 * length than expected (none for the set/write/pulse calls, 4 bytes for GPIO_Read). */
#define VARNEL_GPIO_PULL_NONE 0
#define VARNEL_GPIO_PULL_UP 1
#define VARNEL_GPIO_PULL_DOWN 2
VARNEL_API int GPIO_SetInput(DevHandle DevHandle, uint32_t PinMask, uint8_t PuPd);
VARNEL_API int GPIO_SetOutput(DevHandle DevHandle, uint32_t PinMask, uint8_t PuPd);
VARNEL_API int GPIO_SetOpenDrain(DevHandle DevHandle, uint32_t PinMask, uint8_t PuPd);
VARNEL_API int GPIO_Write(DevHandle DevHandle, uint32_t PinMask, uint32_t PinValue);
/* *pPinValue is written only on success (may be NULL: the value is then dropped). */
VARNEL_API int GPIO_Read(DevHandle DevHandle, uint32_t PinMask, uint32_t* pPinValue);
/* Emits PulseNum pulses of PulseWidthUs high time every PeriodUs on the selected pins. A period
 * not above the width becomes width + 1. Blocks until the adapter replies after the last pulse:
 * the read time-out is (period x count, 32-bit wrapping) / 1000 + 3000 ms. */
VARNEL_API int GPIO_SendPulses(DevHandle DevHandle, uint32_t PinMask, uint32_t PulseWidthUs,
                               uint32_t PeriodUs, int32_t PulseNum);

/* Digital outputs for the K-line wake-up patterns, on the GPIO commands: DIO_Init makes the pins
 * of the mask push-pull outputs without pull (GPIO_SetOutput with pull 0), DIO_SetPins drives
 * them high and DIO_ResetPins low (GPIO_Write). Codes as GPIO_. */
VARNEL_API int DIO_Init(DevHandle DevHandle, uint32_t PinMask);
VARNEL_API int DIO_SetPins(DevHandle DevHandle, uint32_t PinMask);
VARNEL_API int DIO_ResetPins(DevHandle DevHandle, uint32_t PinMask);

/* ===== I2C ================================================================================== */

/* Channel configuration for IIC_Init, 12 bytes as it lies in memory. AddrBits 7 or 10; any other
 * width is sent to the adapter as 7 but kept as given (IIC_GetSlaveAddr then scans 1024
 * addresses). The option bytes go to the adapter unchanged (the virtual adapter ignores them). */
#pragma pack(push, 1)
typedef struct IIC_CONFIG {
  uint32_t ClockSpeedHz;
  uint16_t OwnAddr; /* the channel's address in slave mode */
  uint8_t Master;   /* 1 master, 0 slave */
  uint8_t AddrBits; /* 7 or 10 */
  uint8_t Option1;
  uint8_t Option2;
  uint8_t Reserved[2]; /* not sent */
} IIC_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(IIC_CONFIG) == 12, "IIC_CONFIG is 12 bytes");
#pragma pack(pop)

/* Results: 0 success, -2 the command could not be written, -4 no reply or a reply of an
 * unexpected length, -7 a bad argument found before anything is sent (NULL buffer with a
 * non-zero length, negative length, more than VARNEL_IIC_MAX_LENGTH bytes, address above 0x3FF),
 * or the adapter's status byte (a positive number: the virtual adapter's are VARNEL_IIC_STATUS_*).
 * Reads copy data out only when the status is 0. Lengths are byte counts. */
#define VARNEL_IIC_MAX_CHANNELS 12
#define VARNEL_IIC_MAX_LENGTH 0x7FFFF     /* a USB reply holds 0x80000 bytes: status + data */
#define VARNEL_IIC_SLAVE_BUFFER_SIZE 1024 /* what IIC_SlaveReadBytes may write */
#define VARNEL_IIC_STATUS_ADDRESS_NACK 1
#define VARNEL_IIC_STATUS_DATA_NACK 2
#define VARNEL_IIC_STATUS_BUS_ERROR 3
#define VARNEL_IIC_STATUS_TIMEOUT 4
#define VARNEL_IIC_STATUS_PEC_ERROR 5
#define VARNEL_IIC_STATUS_BAD_REQUEST 6
#define VARNEL_IIC_STATUS_NOT_MASTER 7
VARNEL_API int IIC_Init(DevHandle DevHandle, uint8_t IICIndex, const IIC_CONFIG* pConfig);
/* Probes every address (0-127 on a channel initialised with 7-bit addresses, else 0-1023) with an
 * empty write; stores the ones that answer in ascending order and returns their count, or -5 if
 * pSlaveAddr is NULL. pSlaveAddr must hold 128 entries (1024 when not 7-bit). */
VARNEL_API int IIC_GetSlaveAddr(DevHandle DevHandle, uint8_t IICIndex, uint16_t* pSlaveAddr);
VARNEL_API int IIC_WriteBytes(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                              const uint8_t* pWriteData, int32_t WriteLen, uint32_t TimeOutMs);
VARNEL_API int IIC_ReadBytes(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                             uint8_t* pReadData, int32_t ReadLen, uint32_t TimeOutMs);
/* Write, repeated start, read. */
VARNEL_API int IIC_WriteReadBytes(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                                  const uint8_t* pWriteData, int32_t WriteLen, uint8_t* pReadData,
                                  int32_t ReadLen, uint32_t TimeOutMs);
/* Slave mode. IIC_SlaveWriteBytes loads bytes for a master to read and returns the adapter's
 * count (the virtual adapter: bytes accepted); IIC_SlaveReadBytes returns the number of bytes a
 * master wrote (at most VARNEL_IIC_SLAVE_BUFFER_SIZE, a longer reply is -4);
 * IIC_SlaveWriteRemain the bytes of the last slave write a master has not read yet. The slave
 * calls wait TimeOutMs + 100 ms for the adapter. */
VARNEL_API int IIC_SlaveWriteBytes(DevHandle DevHandle, uint8_t IICIndex, const uint8_t* pWriteData,
                                   int32_t WriteLen, uint32_t TimeOutMs);
VARNEL_API int IIC_SlaveReadBytes(DevHandle DevHandle, uint8_t IICIndex, uint8_t* pReadData,
                                  uint32_t TimeOutMs);
VARNEL_API int IIC_SlaveWriteRemain(DevHandle DevHandle, uint8_t IICIndex);
/* The transfers above, started by an adapter event; Event and EventWaitMs go to the adapter
 * unchanged. */
VARNEL_API int IIC_WriteBytesOfEvent(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                                     const uint8_t* pWriteData, int32_t WriteLen,
                                     uint32_t TimeOutMs, uint8_t Event, uint32_t EventWaitMs);
VARNEL_API int IIC_ReadBytesOfEvent(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                                    uint8_t* pReadData, int32_t ReadLen, uint32_t TimeOutMs,
                                    uint8_t Event, uint32_t EventWaitMs);
VARNEL_API int IIC_WriteReadBytesOfEvent(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                                         const uint8_t* pWriteData, int32_t WriteLen,
                                         uint8_t* pReadData, int32_t ReadLen, uint32_t TimeOutMs,
                                         uint8_t Event, uint32_t EventWaitMs);
/* BlockNum transfers of BlockSize bytes each, IntervalUs apart; the data are BlockSize x BlockNum
 * bytes in a row. */
VARNEL_API int IIC_BlockWriteBytes(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                                   const uint8_t* pWriteData, int32_t BlockSize, int32_t BlockNum,
                                   uint32_t IntervalUs);
VARNEL_API int IIC_BlockReadBytes(DevHandle DevHandle, uint8_t IICIndex, uint16_t SlaveAddr,
                                  uint8_t* pReadData, int32_t BlockSize, int32_t BlockNum,
                                  uint32_t IntervalUs);
VARNEL_API int IIC_SetStretchClock(DevHandle DevHandle, uint8_t IICIndex, uint8_t Enable);
/* Clocks a stuck bus free (nine clocks and a stop). */
VARNEL_API int IIC_BusReset(DevHandle DevHandle, uint8_t IICIndex);

/* ===== SMBus ================================================================================ */

/* SMBus protocols over an I2C channel, 10 ms time-out each. SlaveAddr is 7-bit (above 0x7F: -7,
 * nothing sent). WithPEC asks the adapter to append and check the packet error code. Results as
 * the I2C calls. Words travel high byte first in both directions (not the SMBus order). Block
 * reads write at most VARNEL_SMBUS_BLOCK_MAX bytes: a reply with more is -4 and nothing is
 * copied; the count is written on status 0. Block writes take 0 to VARNEL_SMBUS_BLOCK_MAX
 * bytes (more: -7). */
#define VARNEL_SMBUS_BLOCK_MAX 32
VARNEL_API int SMBUS_Init(DevHandle DevHandle, uint8_t SMBUSIndex, uint32_t ClockSpeedHz,
                          uint8_t Option);
/* WriteFlag non-zero: a write of no data; zero: a read of no data. */
VARNEL_API int SMBUS_QuickCommand(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                  uint8_t WriteFlag);
VARNEL_API int SMBUS_WriteByte(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                               uint8_t Data, uint8_t WithPEC);
VARNEL_API int SMBUS_ReadByte(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                              uint8_t* pData, uint8_t WithPEC);
VARNEL_API int SMBUS_WriteByteProtocol(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                       uint8_t CommandCode, uint8_t Data, uint8_t WithPEC);
VARNEL_API int SMBUS_WriteWordProtocol(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                       uint8_t CommandCode, uint16_t Data, uint8_t WithPEC);
VARNEL_API int SMBUS_ReadByteProtocol(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                      uint8_t CommandCode, uint8_t* pData, uint8_t WithPEC);
VARNEL_API int SMBUS_ReadWordProtocol(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                      uint8_t CommandCode, uint16_t* pData, uint8_t WithPEC);
VARNEL_API int SMBUS_ProcessCall(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                 uint8_t CommandCode, uint16_t WriteData, uint16_t* pReadData,
                                 uint8_t WithPEC);
VARNEL_API int SMBUS_BlockWrite(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                uint8_t CommandCode, const uint8_t* pWriteData, uint32_t WriteCount,
                                uint8_t WithPEC);
VARNEL_API int SMBUS_BlockRead(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                               uint8_t CommandCode, uint8_t* pReadData, uint32_t* pReadCount,
                               uint8_t WithPEC);
VARNEL_API int SMBUS_BlockProcessCall(DevHandle DevHandle, uint8_t SMBUSIndex, uint16_t SlaveAddr,
                                      uint8_t CommandCode, const uint8_t* pWriteData,
                                      uint32_t WriteCount, uint8_t* pReadData, uint32_t* pReadCount,
                                      uint8_t WithPEC);

/* ===== SPI ================================================================================== */

/* Channels 0 and 1. Every call answers 0 or a negative code: -2 the command could not be written,
 * -4 the reply could not be read or was refused, -5 a bit text with characters other than 0 and 1,
 * -6 a flash that stays busy past the time-out, -7 a NULL buffer or a length out of range. */
#define VARNEL_SPI_MAX_LENGTH 0x100000 /* bytes of one transfer */
#define VARNEL_SPI_MAX_BITS 163840     /* a longer bit text is cut to this */
#define VARNEL_SPI_FLASH_ID_SIZE 8     /* SPI_FlashReadID writes at most this many bytes */

#pragma pack(push, 1)
/* Channel configuration, 12 bytes. The library sends the six option bytes and ClockSpeedHz and
 * does not read them: their meaning is the adapter's (docs/spi.md has our firmware's). */
typedef struct SPI_CONFIG {
  uint8_t Mode;
  uint8_t Master;
  uint8_t CPOL;
  uint8_t CPHA;
  uint8_t LSBFirst;
  uint8_t SelPolarity;
  uint8_t Reserved[2]; /* not sent */
  uint32_t ClockSpeedHz;
} SPI_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(SPI_CONFIG) == 12, "SPI_CONFIG is 12 bytes");

/* SPI NOR flash description, 44 bytes. The library uses Commands[0] (write enable), [7] (chip
 * erase), [13] (status; bit 0 busy), [6]/[11] (4 KiB erase, 3-/4-byte address), [8..10] (4-byte
 * read, fast read, program; docs/spi.md); the rest goes to the adapter. [31] 0 is sent as 1. */
typedef struct SPI_FLASH_CONFIG {
  uint8_t Commands[32];
  uint64_t Param64; /* our firmware: the flash size in bytes */
  uint32_t Param32; /* our firmware: the page size in bytes */
} SPI_FLASH_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(SPI_FLASH_CONFIG) == 44, "SPI_FLASH_CONFIG is 44 bytes");
#pragma pack(pop)

VARNEL_API int SPI_Init(DevHandle DevHandle, uint8_t SPIIndex, SPI_CONFIG* pConfig);
VARNEL_API int SPI_WriteBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                              int32_t WriteLen);
VARNEL_API int SPI_WriteBytesAsync(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                   int32_t WriteLen);
VARNEL_API int SPI_ReadBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                             int32_t ReadLen);
/* Writes WriteLen bytes, then reads ReadLen with IntervalUs between the two phases. */
VARNEL_API int SPI_WriteReadBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                  int32_t WriteLen, uint8_t* pReadData, int32_t ReadLen,
                                  int32_t IntervalUs);
/* Bit texts: one character '0' or '1' per bit, first bit first. SPI_ReadBits and
 * SPI_WriteReadBits write BitCount (or the written count) characters and a terminating zero. */
VARNEL_API int SPI_WriteBits(DevHandle DevHandle, uint8_t SPIIndex, const char* pWriteBitStr);
VARNEL_API int SPI_ReadBits(DevHandle DevHandle, uint8_t SPIIndex, char* pReadBitStr,
                            int32_t ReadBitsNum);
VARNEL_API int SPI_WriteReadBits(DevHandle DevHandle, uint8_t SPIIndex, const char* pWriteBitStr,
                                 char* pReadBitStr);

/* Blocks: BlockCount blocks of BlockSize bytes with IntervalUs between them, in one request. */
VARNEL_API int SPI_BlockWriteBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                   uint16_t BlockSize, uint16_t BlockCount, uint32_t IntervalUs);
VARNEL_API int SPI_BlockReadBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                                  uint16_t BlockSize, uint16_t BlockCount, uint32_t IntervalUs);
VARNEL_API int SPI_BlockWriteReadBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                       uint16_t WriteBlockSize, uint8_t* pReadData,
                                       uint16_t ReadBlockSize, uint16_t BlockCount,
                                       uint32_t IntervalUs);
/* Started by an event on EventPins (EventType: the adapter's; ours 0 rising, 1 falling, 2 either
 * edge) within WaitMs; -6 when the adapter reports that none came. */
VARNEL_API int SPI_WriteBytesOfEvent(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                     int32_t WriteLen, uint32_t EventPins, uint8_t EventType,
                                     uint32_t WaitMs);
VARNEL_API int SPI_ReadBytesOfEvent(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                                    int32_t ReadLen, uint32_t EventPins, uint8_t EventType,
                                    uint32_t WaitMs);
VARNEL_API int SPI_WriteReadBytesOfEvent(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                         int32_t WriteLen, uint8_t* pReadData, int32_t ReadLen,
                                         int32_t IntervalUs, uint32_t EventPins, uint8_t EventType,
                                         uint32_t WaitMs);
/* Each block waits for its own event (BlockCount x WaitMs at the most). */
VARNEL_API int SPI_BlockWriteBytesOfEvent(DevHandle DevHandle, uint8_t SPIIndex,
                                          uint8_t* pWriteData, uint16_t BlockSize,
                                          uint16_t BlockCount, uint32_t IntervalUs,
                                          uint32_t EventPins, uint8_t EventType, uint32_t WaitMs);
VARNEL_API int SPI_BlockReadBytesOfEvent(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                                         uint16_t BlockSize, uint16_t BlockCount,
                                         uint32_t IntervalUs, uint32_t EventPins, uint8_t EventType,
                                         uint32_t WaitMs);
VARNEL_API int SPI_BlockWriteReadBytesOfEvent(DevHandle DevHandle, uint8_t SPIIndex,
                                              uint8_t* pWriteData, uint16_t WriteBlockSize,
                                              uint8_t* pReadData, uint16_t ReadBlockSize,
                                              uint16_t BlockCount, uint32_t IntervalUs,
                                              uint32_t EventPins, uint8_t EventType,
                                              uint32_t WaitMs);

/* The slave side. Receiving bytes a master clocks in: one read (SPI_SlaveReadBytes), or the
 * continuous read, whose stream thread fetches them into a host buffer of at most 20 MiB (the
 * oldest bytes go first) or hands them to a callback. */
typedef void (*SPI_SLAVE_DATA_CALLBACK)(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pData,
                                        int32_t DataNum);
/* Loads bytes for a master to read within WaitMs: the count the adapter took. */
VARNEL_API int SPI_SlaveWriteBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                   int32_t WriteLen, int32_t WaitMs);
VARNEL_API int SPI_SlaveWriteReadBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                       uint8_t* pReadData, int32_t Length, int32_t WaitMs);
VARNEL_API int SPI_SlaveReadWriteBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                                       uint8_t* pWriteData, int32_t Length, int32_t WaitMs);
/* Reads until Length bytes came, or TimeOutMs in 10 ms rounds (below 1: without limit): the
 * number read. */
VARNEL_API int SPI_SlaveReadBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                                  int32_t Length, int32_t TimeOutMs);
VARNEL_API int SPI_SlaveStartContinueRead(DevHandle DevHandle, uint8_t SPIIndex);
VARNEL_API int SPI_SlaveStopContinueRead(DevHandle DevHandle, uint8_t SPIIndex);
VARNEL_API int SPI_SlaveContinueWrite(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pWriteData,
                                      int32_t WriteLen);
/* Starts the stream; Callback NULL keeps the bytes for SPI_SlaveGetBytes. */
VARNEL_API int SPI_SlaveContinueRead(DevHandle DevHandle, uint8_t SPIIndex,
                                     SPI_SLAVE_DATA_CALLBACK Callback);
/* Moves up to Size buffered bytes, oldest first: the count, 0 when none. */
VARNEL_API int SPI_SlaveGetBytes(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pReadData,
                                 int32_t Size);
VARNEL_API int SPI_SlaveContinueWriteReadStop(DevHandle DevHandle, uint8_t SPIIndex);
VARNEL_API int SPI_SlaveContinueReadStop(DevHandle DevHandle, uint8_t SPIIndex);
/* One fetch of what the adapter holds, straight into pReadData (at most Size bytes): the count. */
VARNEL_API int SPI_SlaveReadBytesFromBuffer(DevHandle DevHandle, uint8_t SPIIndex,
                                            uint8_t* pReadData, int32_t Size);
/* Extension: bytes the full host buffer dropped, oldest first, since the stream started. */
VARNEL_API int64_t VARNEL_SPI_SlaveDropped(DevHandle DevHandle, uint8_t SPIIndex);
/* Extension: the continuous read's state, or how the last one ended: 1 running; 0 never started,
 * or stopped by the caller; else the negative code of the fetch that ended it (-2 the adapter was
 * closed or went away, -4 its reply failed), kept until the next start; -7 for a channel other
 * than 0 and 1. */
VARNEL_API int VARNEL_SPI_SlaveStreamState(DevHandle DevHandle, uint8_t SPIIndex);

/* Extension: the description of a common SPI NOR flash of `Size` bytes with 256-byte pages (06
 * write enable, 03/0B read/fast read, 02 program, 9F id, 04 write disable, 20 4 KiB erase, C7 chip
 * erase, 05 status; above 16 MiB also 13 0C 12 21, the 4-byte forms). 0; -7 for NULL. */
VARNEL_API int VARNEL_SPI_NorFlashConfig(SPI_FLASH_CONFIG* pConfig, uint64_t Size);
VARNEL_API int SPI_FlashInit(DevHandle DevHandle, uint8_t SPIIndex, uint32_t ClockSpeedHz,
                             SPI_FLASH_CONFIG* pConfig);
VARNEL_API int SPI_FlashReadID(DevHandle DevHandle, uint8_t SPIIndex, uint8_t* pID);
VARNEL_API int SPI_FlashWrite(DevHandle DevHandle, uint8_t SPIIndex, uint32_t StartAddr,
                              uint8_t* pWriteData, int32_t WriteLen);
VARNEL_API int SPI_FlashRead(DevHandle DevHandle, uint8_t SPIIndex, uint32_t StartAddr,
                             uint8_t* pReadData, int32_t ReadLen);
VARNEL_API int SPI_FlashReadFast(DevHandle DevHandle, uint8_t SPIIndex, uint32_t StartAddr,
                                 uint8_t* pReadData, int32_t ReadLen);
/* SectorNum sectors from StartAddr, erased by the adapter within TimeOutMs. */
VARNEL_API int SPI_FlashEraseSector(DevHandle DevHandle, uint8_t SPIIndex, uint32_t StartAddr,
                                    int32_t SectorNum, int32_t TimeOutMs);
/* Composed on the host from byte transfers with the description's commands: waits for the flash
 * to be idle, enables writing, erases, and polls the status until done; -6 past TimeOutMs. */
VARNEL_API int SPI_FlashEraseChip(DevHandle DevHandle, uint8_t SPIIndex, int32_t TimeOutMs);
VARNEL_API int SPI_FlashErase(DevHandle DevHandle, uint8_t SPIIndex, uint32_t StartAddr,
                              int32_t Length, int32_t TimeOutMs);

/* ===== UART ================================================================================= */

/* Channel configuration for UART_Init: 8 bytes, sent to the adapter as they lie in memory (the
 * baud rate in host byte order); the library does not read them. The layout is the firmware's; the
 * virtual adapter's (docs/virtual-adapter.md): Parity 0 none, 1 odd, 2 even; StopBits 0 or 1 one,
 * 2 two; Reserved 0; Mode 0 for a plain UART, or the K-line letters 'B', 'R', 'Z'. All zeros
 * after the baud rate is 8N1. */
typedef struct UART_CONFIG {
  uint32_t BaudRate;
  uint8_t Parity;
  uint8_t StopBits;
  uint8_t Reserved;
  uint8_t Mode;
} UART_CONFIG;
VARNEL_STATIC_ASSERT(sizeof(UART_CONFIG) == 8, "UART_CONFIG is 8 bytes");

/* Channels 0 to VARNEL_UART_MAX_CHANNELS - 1; another channel is -7 before anything is sent, as
 * are a null pointer with a non-zero length, a negative length and more than
 * VARNEL_UART_MAX_LENGTH bytes to send.
 * Results: 0 success (or a count of bytes received), -2 the command could not be written, -4 the
 * reply could not be read, had data where none was expected (the adapter's refusal: a channel not
 * initialised, a configuration it cannot take) or was longer than the caller's buffer. */
#define VARNEL_UART_MAX_CHANNELS 8
#define VARNEL_UART_MAX_LENGTH 65536
/* What one UART_ReadBytes may write into pReadData: its buffer must hold this many bytes. */
#define VARNEL_UART_READ_SIZE 4096
VARNEL_API int UART_Init(DevHandle DevHandle, uint8_t UARTIndex, const UART_CONFIG* pConfig);
/* Returns when the adapter has sent the bytes; the Async forms as soon as it has taken them. */
VARNEL_API int UART_WriteBytes(DevHandle DevHandle, uint8_t UARTIndex, const uint8_t* pWriteData,
                               int32_t DataSize);
VARNEL_API int UART_WriteBytesAsync(DevHandle DevHandle, uint8_t UARTIndex,
                                    const uint8_t* pWriteData, int32_t DataSize);
/* Polls the adapter every millisecond or so until bytes came (their number, at most
 * VARNEL_UART_READ_SIZE) or TimeOutMs passed (0). A time-out of 0 or less polls once. */
VARNEL_API int UART_ReadBytes(DevHandle DevHandle, uint8_t UARTIndex, uint8_t* pReadData,
                              int32_t TimeOutMs);
/* Drops what the adapter has received so far. */
VARNEL_API int UART_ClearData(DevHandle DevHandle, uint8_t UARTIndex);
/* A pause of IntervalMs (IntervalUs) between consecutive bytes; returns when all were sent. */
VARNEL_API int UART_WriteBytesInterval(DevHandle DevHandle, uint8_t UARTIndex,
                                       const uint8_t* pWriteData, int32_t DataSize,
                                       uint8_t IntervalMs);
VARNEL_API int UART_WriteBytesIntervalUs(DevHandle DevHandle, uint8_t UARTIndex,
                                         const uint8_t* pWriteData, int32_t DataSize,
                                         uint8_t IntervalUs);
/* A break of BreakBits bit times (the line held low; 0: none) before the bytes. */
VARNEL_API int UART_WriteBytesWithBreak(DevHandle DevHandle, uint8_t UARTIndex, uint8_t BreakBits,
                                        const uint8_t* pWriteData, int32_t DataSize);
VARNEL_API int UART_WriteBytesAsyncWithBreak(DevHandle DevHandle, uint8_t UARTIndex,
                                             uint8_t BreakBits, const uint8_t* pWriteData,
                                             int32_t DataSize);
/* Break, bytes, then what the channel receives until ReadSize bytes came or TimeOutMs passed:
 * the number of bytes written to pReadData (may be fewer than ReadSize; pReadData may be NULL
 * when ReadSize is 0). */
VARNEL_API int UART_WriteReadBytesWithBreak(DevHandle DevHandle, uint8_t UARTIndex,
                                            uint8_t BreakBits, const uint8_t* pWriteData,
                                            int32_t WriteSize, uint8_t* pReadData,
                                            uint16_t ReadSize, uint16_t TimeOutMs);
VARNEL_API int UART_Stop(DevHandle DevHandle, uint8_t UARTIndex);

/* ===== ADC ================================================================================== */

/* Inputs 0..7: bit n of ChannelMask samples input n. Samples are 16-bit values as the adapter
 * sends them; ours sends 12-bit readings (0..4095), little-endian, the inputs of one instant in
 * ascending order one after the other (docs/adc.md). Codes: -2 the command could not be written,
 * -4 the reply could not be read, had another length or was refused, -7 a NULL buffer or a
 * count out of range. */
typedef void (*ADC_DATA_CALLBACK)(DevHandle DevHandle, uint16_t* pData, int32_t DataNum);
/* Stores the mask and the rate (samples per second per input) and sends them. */
VARNEL_API int ADC_Init(DevHandle DevHandle, uint8_t ChannelMask, uint32_t SampleRateHz);
/* One block of SampleNumOfChannel samples of every input of the stored mask, straight into
 * pData (SampleNumOfChannel x inputs samples). */
VARNEL_API int ADC_Read(DevHandle DevHandle, uint16_t* pData, uint32_t SampleNumOfChannel);
/* The adapter pushes packets of PacketSamples samples; a thread of the library receives them for
 * Callback (called on that thread) or, with Callback NULL, queues them for ADC_GetData (at most
 * 20 MiB; when full the oldest packet goes and is counted). A start while streaming stops the
 * running stream first. USB adapters only: elsewhere the stream cannot start and the call gives
 * -2 after stopping the adapter's side. */
VARNEL_API int ADC_StartContinueRead(DevHandle DevHandle, uint8_t ChannelMask,
                                     uint32_t SampleRateHz, uint32_t PacketSamples,
                                     ADC_DATA_CALLBACK Callback);
/* Tells the adapter to stop and ends the thread; no callback runs after it returns. Always 0. */
VARNEL_API int ADC_StopContinueRead(DevHandle DevHandle);
/* Whole queued packets, oldest first, as many as MaxSamples holds: the number of samples copied
 * (0 when fewer than one packet fits); -7 for a NULL buffer, -1 for an unknown handle. */
VARNEL_API int ADC_GetData(DevHandle DevHandle, uint16_t* pData, int32_t MaxSamples);
/* Extension: packets the full queue dropped since the stream started. */
VARNEL_API int64_t VARNEL_ADC_Dropped(DevHandle DevHandle);
/* Extension: the continuous read's state, or how the last one ended: 1 streaming; 0 never started,
 * or stopped by ADC_StopContinueRead; -2 ended because the adapter was closed or reconnected under
 * it (USB_CloseDevice, USB_RetryConnect, USB_WaitResume, a reconnection after a failed write, a
 * scan that reopened it); -3 ended because the adapter went away; -1 for an unknown handle. */
VARNEL_API int VARNEL_ADC_StreamState(DevHandle DevHandle);
/* Extension: the queue's bound in bytes for the next start (at least one packet is kept);
 * 0 restores 20 MiB. 0, or -1 for an unknown handle. */
VARNEL_API int VARNEL_ADC_SetQueueLimit(DevHandle DevHandle, uint32_t Bytes);

/* ===== Library extensions (settings outside the adapter families) =========================== */

/* Ports of the network carrier: the discovery probe's and the adapters' TCP port. 0 restores the
 * default (1025, 8000). Before the first call the environment variables VARNEL_NET_DISCOVERY_PORT
 * and VARNEL_NET_TCP_PORT are read. Always 0. */
VARNEL_API int VARNEL_SetNetPorts(uint16_t DiscoveryPort, uint16_t TcpPort);

/* How often the library connected the adapter again since the process started (the write retry
 * after a failed write, USB_RetryConnect, USB_WaitResume, a scan that finds an open adapter
 * answering from a new device): an adapter that was unplugged or
 * power-cycled comes back this way, with nothing initialised and whatever it received meanwhile
 * lost, while calls such as CAN_GetMsg go on returning 0 without an error. 0 for a handle never
 * reconnected (or unknown). */
VARNEL_API int64_t VARNEL_GetReconnectCount(DevHandle DevHandle);

/* The library's version, "MAJOR.MINOR.PATCH" (static text, never NULL). The shared library's
 * SONAME carries the major number: libvarnel.so.0. */
VARNEL_API const char* VARNEL_GetVersion(void);

#endif /* VARNEL_H */
