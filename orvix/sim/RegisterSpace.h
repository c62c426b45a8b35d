// A board's sparse 32-bit register space. Registers never written read 0; a few fixed registers
// identify the board and refuse writes.
//
//   0x0000  ID                 0x4F525658 ("ORVX"), read-only
//   0x0004  firmware version   the board version (parameter 0x10000007), read-only
//   0x0008  serial number      the board serial (parameter 0x20000001), read-only
//   anything else, 4-byte aligned: read/write scratch
//
// Thread: any; an internal mutex guards the space.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "Status.h"

namespace orvix::sim {

inline constexpr uint32_t kRegisterId = 0x0000;
inline constexpr uint32_t kRegisterFirmwareVersion = 0x0004;
inline constexpr uint32_t kRegisterSerial = 0x0008;
inline constexpr uint32_t kBoardIdValue = 0x4F525658;

class RegisterSpace {
  public:
    RegisterSpace(uint32_t version, uint32_t serial);

    Status read(uint32_t address, uint32_t& value) const;
    Status write(uint32_t address, uint32_t value);

  private:
    mutable std::mutex mutex_;
    std::map<uint32_t, uint32_t> readOnly_;
    std::map<uint32_t, uint32_t> values_;
};

}  // namespace orvix::sim
