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
  uint32_t Id;           /* bits 0-28 identifier */
  uint32_t TimeStamp;    /* device time stamp of a received frame; 0 in the copy that is sent */
  uint8_t Flags;         /* bit0 remote, bits5-6 channel, bit7 transmitted by this host */
  uint8_t Extended;      /* bit0: 29-bit identifier */
  uint8_t DataLen;       /* 0-8 */
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

/* ===== Device information and housekeeping ================================================== */

/* ===== Logging and timing =================================================================== */

/* ===== CAN ================================================================================== */

/* ===== CAN FD =============================================================================== */

/* ===== DBC database files =================================================================== */

/* ===== Firmware image files ================================================================= */

/* ===== GPIO ================================================================================= */

/* ===== Library extensions (settings outside the adapter families) =========================== */

#endif /* VARNEL_H */
