#include "RegisterSpace.h"

#include <cstdio>

#include "OrvixBoard.h"

namespace orvix::sim {
namespace {

std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", v);
    return buf;
}

Status unaligned(const char* op, uint32_t address) {
    return Status::fail(
        ORVIX_ERR_REGISTER_UNALIGNED,
        std::string(op) + " register " + hex(address) + ": the address is not a multiple of 4",
        address);
}

}  // namespace

RegisterSpace::RegisterSpace(uint32_t version, uint32_t serial)
    : readOnly_{{kRegisterId, kBoardIdValue},
                {kRegisterFirmwareVersion, version},
                {kRegisterSerial, serial}} {}

Status RegisterSpace::read(uint32_t address, uint32_t& value) const {
    if (address % 4 != 0) {
        return unaligned("Read", address);
    }
    std::lock_guard lock(mutex_);
    if (auto it = readOnly_.find(address); it != readOnly_.end()) {
        value = it->second;
        return Status::success();
    }
    auto it = values_.find(address);
    value = it == values_.end() ? 0 : it->second;
    return Status::success();
}

Status RegisterSpace::write(uint32_t address, uint32_t value) {
    if (address % 4 != 0) {
        return unaligned("Write", address);
    }
    std::lock_guard lock(mutex_);
    if (readOnly_.count(address) != 0) {
        return Status::fail(ORVIX_ERR_REGISTER_READ_ONLY,
                            "Write register " + hex(address) + ": the register is read-only",
                            address);
    }
    if (value == 0) {
        values_.erase(address);  // keeps the space sparse
    } else {
        values_[address] = value;
    }
    return Status::success();
}

}  // namespace orvix::sim
