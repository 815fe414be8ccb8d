/* Prints the size of every record the Python bindings mirror and the offset of each field, as
 * a C compiler lays them out from varnel.h: "CAN_MSG 20" and "CAN_MSG.Data 11" lines. */
#include <stddef.h>
#include <stdio.h>

#include "varnel.h"

#define RECORD(type) printf("%s %zu\n", #type, sizeof(type))
#define FIELD(type, field) printf("%s.%s %zu\n", #type, #field, offsetof(type, field))

int main(void) {
  RECORD(CAN_MSG);
  FIELD(CAN_MSG, Id);
  FIELD(CAN_MSG, TimeStamp);
  FIELD(CAN_MSG, Flags);
  FIELD(CAN_MSG, Extended);
  FIELD(CAN_MSG, DataLen);
  FIELD(CAN_MSG, Data);
  FIELD(CAN_MSG, TimeStampHigh);

  RECORD(CANFD_MSG);
  FIELD(CANFD_MSG, Id);
  FIELD(CANFD_MSG, DataLen);
  FIELD(CANFD_MSG, Flags);
  FIELD(CANFD_MSG, __Res);
  FIELD(CANFD_MSG, TimeStampHigh);
  FIELD(CANFD_MSG, TimeStamp);
  FIELD(CANFD_MSG, Data);

  RECORD(CAN_INIT_CONFIG);
  FIELD(CAN_INIT_CONFIG, Prescaler);
  FIELD(CAN_INIT_CONFIG, Sjw);
  FIELD(CAN_INIT_CONFIG, Bs1);
  FIELD(CAN_INIT_CONFIG, Bs2);
  FIELD(CAN_INIT_CONFIG, Mode);
  FIELD(CAN_INIT_CONFIG, ControllerOption1);
  FIELD(CAN_INIT_CONFIG, ControllerOption2);
  FIELD(CAN_INIT_CONFIG, ControllerOption3);
  FIELD(CAN_INIT_CONFIG, ControllerOption4);

  RECORD(CANFD_INIT_CONFIG);
  FIELD(CANFD_INIT_CONFIG, Mode);
  FIELD(CANFD_INIT_CONFIG, Option);
  FIELD(CANFD_INIT_CONFIG, FrameFormat);
  FIELD(CANFD_INIT_CONFIG, DeviceOption);
  FIELD(CANFD_INIT_CONFIG, NomPrescaler);
  FIELD(CANFD_INIT_CONFIG, NomSeg1);
  FIELD(CANFD_INIT_CONFIG, NomSeg2);
  FIELD(CANFD_INIT_CONFIG, NomSjw);
  FIELD(CANFD_INIT_CONFIG, DataPrescaler);
  FIELD(CANFD_INIT_CONFIG, DataSeg1);
  FIELD(CANFD_INIT_CONFIG, DataSeg2);
  FIELD(CANFD_INIT_CONFIG, DataSjw);
  FIELD(CANFD_INIT_CONFIG, DelayCompensation);
  FIELD(CANFD_INIT_CONFIG, Reserved);

  RECORD(DEVICE_INFO);
  FIELD(DEVICE_INFO, FirmwareName);
  FIELD(DEVICE_INFO, BuildDate);
  FIELD(DEVICE_INFO, HardwareVersion);
  FIELD(DEVICE_INFO, FirmwareVersion);
  FIELD(DEVICE_INFO, SerialNumber);
  FIELD(DEVICE_INFO, FunctionsLength);

  RECORD(CAN_STATUS);
  FIELD(CAN_STATUS, ControllerStatus);
  FIELD(CAN_STATUS, ErrorStatus);
  FIELD(CAN_STATUS, RxErrorCounter);
  FIELD(CAN_STATUS, TxErrorCounter);
  FIELD(CAN_STATUS, LastErrorCode);
  FIELD(CAN_STATUS, ErrorFlags);
  RECORD(VARNEL_RECEIVE_STATS);
  FIELD(VARNEL_RECEIVE_STATS, ApplicationDropped);
  FIELD(VARNEL_RECEIVE_STATS, DiagnosticDropped);
  FIELD(VARNEL_RECEIVE_STATS, FetchesDropped);
  FIELD(VARNEL_RECEIVE_STATS, PollerRunning);
  FIELD(VARNEL_RECEIVE_STATS, PollerStopResult);
  FIELD(VARNEL_RECEIVE_STATS, StatusResult);
  FIELD(VARNEL_RECEIVE_STATS, Status);

  RECORD(IIC_CONFIG);
  FIELD(IIC_CONFIG, ClockSpeedHz);
  FIELD(IIC_CONFIG, OwnAddr);
  FIELD(IIC_CONFIG, Master);
  FIELD(IIC_CONFIG, AddrBits);
  FIELD(IIC_CONFIG, Option1);
  FIELD(IIC_CONFIG, Option2);
  FIELD(IIC_CONFIG, Reserved);
  RECORD(SPI_CONFIG);
  FIELD(SPI_CONFIG, Mode);
  FIELD(SPI_CONFIG, Master);
  FIELD(SPI_CONFIG, CPOL);
  FIELD(SPI_CONFIG, CPHA);
  FIELD(SPI_CONFIG, LSBFirst);
  FIELD(SPI_CONFIG, SelPolarity);
  FIELD(SPI_CONFIG, Reserved);
  FIELD(SPI_CONFIG, ClockSpeedHz);
  RECORD(SPI_FLASH_CONFIG);
  FIELD(SPI_FLASH_CONFIG, Commands);
  FIELD(SPI_FLASH_CONFIG, Param64);
  FIELD(SPI_FLASH_CONFIG, Param32);
  RECORD(CAN_UDS_CONFIG);
  FIELD(CAN_UDS_CONFIG, STmin);
  FIELD(CAN_UDS_CONFIG, BlockSize);
  FIELD(CAN_UDS_CONFIG, FillByte);
  FIELD(CAN_UDS_CONFIG, Reserved);
  FIELD(CAN_UDS_CONFIG, FlowWaitMs);
  RECORD(CAN_UDS_ADDR);
  FIELD(CAN_UDS_ADDR, ReqID);
  FIELD(CAN_UDS_ADDR, ResID);
  FIELD(CAN_UDS_ADDR, Flags);
  FIELD(CAN_UDS_ADDR, ExtAddr);
  FIELD(CAN_UDS_ADDR, AddrByte);
  FIELD(CAN_UDS_ADDR, FrameLen);

  RECORD(LIN_EX_MSG);
  FIELD(LIN_EX_MSG, TimeStamp);
  FIELD(LIN_EX_MSG, MsgType);
  FIELD(LIN_EX_MSG, CheckType);
  FIELD(LIN_EX_MSG, DataLen);
  FIELD(LIN_EX_MSG, Sync);
  FIELD(LIN_EX_MSG, PID);
  FIELD(LIN_EX_MSG, Data);
  FIELD(LIN_EX_MSG, Check);
  FIELD(LIN_EX_MSG, BreakBits);
  FIELD(LIN_EX_MSG, Tag);

  RECORD(LIN_UDS_ADDR);
  FIELD(LIN_UDS_ADDR, ReqID);
  FIELD(LIN_UDS_ADDR, ResID);
  FIELD(LIN_UDS_ADDR, NAD);
  FIELD(LIN_UDS_ADDR, CheckType);
  FIELD(LIN_UDS_ADDR, FrameSpacing);

  RECORD(K_MSG);
  FIELD(K_MSG, Fmt);
  FIELD(K_MSG, Tgt);
  FIELD(K_MSG, Src);
  FIELD(K_MSG, Len);
  FIELD(K_MSG, SID);
  FIELD(K_MSG, Data);
  FIELD(K_MSG, CheckSum);

  RECORD(KWP_MSG);
  FIELD(KWP_MSG, TimeStamp);
  FIELD(KWP_MSG, TimeStampHi);
  FIELD(KWP_MSG, Kind);
  FIELD(KWP_MSG, Status);
  FIELD(KWP_MSG, P4);
  FIELD(KWP_MSG, Fmt);
  FIELD(KWP_MSG, Tgt);
  FIELD(KWP_MSG, Src);
  FIELD(KWP_MSG, Len);
  FIELD(KWP_MSG, SID);
  FIELD(KWP_MSG, Data);
  FIELD(KWP_MSG, CheckSum);

  RECORD(HEXFILE_SEGMENT);
  FIELD(HEXFILE_SEGMENT, StartAddr);
  FIELD(HEXFILE_SEGMENT, DataLen);
  FIELD(HEXFILE_SEGMENT, pData);

  RECORD(UART_CONFIG);
  FIELD(UART_CONFIG, BaudRate);
  FIELD(UART_CONFIG, Parity);
  FIELD(UART_CONFIG, StopBits);
  FIELD(UART_CONFIG, Reserved);
  FIELD(UART_CONFIG, Mode);
  return 0;
}
