// Bit-rate tables of the classic and CAN FD channels, chosen by the adapter kind in the handle.
#pragma once

#include <cstdint>

#include "varnel.h"

namespace varnel::can {

// 0, or -4 when the rate is not a row of the handle's table.
int classic_speed_arg(uint32_t handle, uint32_t bitrate, CAN_INIT_CONFIG& out);
int fd_speed_arg(uint32_t handle, uint32_t nominal, uint32_t data, CANFD_INIT_CONFIG& out);

// Controller clock for the rates a CAN FD adapter derives from its init record.
uint32_t fd_controller_clock(uint32_t handle);

}  // namespace varnel::can
