// The board's parameter catalogue: every id of OrvixBoard.h with its display name, its legal
// values and how the board treats it.
// Thread: immutable data; safe from any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace orvix::sim {

enum ParameterFlag : uint32_t {
    kReadOnly = 1u << 0,
    kFrozenWhileGrabbing = 1u << 1,  // changes the frame or the ring: refused during a grab
    kTransient = 1u << 2,            // an action or run-time state, not kept in configuration files
    kLive = 1u << 3,                 // owned by the streaming side, not by the parameter store
};

struct ParameterInfo {
    uint32_t id;
    const char* name;
    uint32_t defaultValue;
    uint32_t min;
    uint32_t max;
    std::span<const uint32_t> choices;  // when not empty, the only legal values
    uint32_t flags;

    bool readOnly() const { return (flags & kReadOnly) != 0; }
    bool persistent() const { return (flags & (kReadOnly | kTransient | kLive)) == 0; }
    bool accepts(uint32_t value) const;
    // "8, 10, 12, 14 or 16" or "1..65535"
    std::string legalValues() const;
};

std::span<const ParameterInfo> parameterTable();
const ParameterInfo* findParameter(uint32_t id);
// "image width (0x10000001)"; unknown ids give "parameter 0x........".
std::string describeParameter(uint32_t id);

}  // namespace orvix::sim
