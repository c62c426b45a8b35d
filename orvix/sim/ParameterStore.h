// The parameter values of one open board, with the board's range checks and the frame size that
// geometry and format imply. The streaming side owns the live ids (kLive); the Board routes them.
// Thread: not synchronised; the owning Board serialises every call.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "BoardConfig.h"
#include "FrameFormat.h"
#include "Status.h"

namespace orvix::sim {

using ParameterValues = std::vector<std::pair<uint32_t, uint32_t>>;

class ParameterStore {
  public:
    // Borrows the configuration, which must outlive the store: a temporary is refused.
    explicit ParameterStore(const BoardConfig& config);
    explicit ParameterStore(BoardConfig&&) = delete;

    // Also fails for ids in the board's fail_get list.
    Status get(uint32_t id, uint32_t& value) const;
    // Checks the id, write access, the fail_set list and the legal values; the value is unchanged
    // on failure.
    Status set(uint32_t id, uint32_t value);
    // Everything set() checks, without changing anything.
    Status check(uint32_t id, uint32_t value) const;

    // Every writable value kept in configuration files, in table order.
    ParameterValues persistentValues() const;
    // Checks all values first; applies them only when every one is acceptable. A value equal to
    // the current one is never refused by fail_set.
    Status applyAll(const ParameterValues& values);

    FrameFormat frameFormat() const;
    uint64_t frameBytes() const { return frameFormat().frameBytes(); }
    uint32_t value(uint32_t id) const;  // a stored value, 0 for ids the store does not hold
    uint32_t modelCode() const { return value(0x10000007) >> 16; }

  private:
    Status checkValue(uint32_t id, uint32_t value) const;

    const BoardConfig& config_;
    std::map<uint32_t, uint32_t> values_;
};

}  // namespace orvix::sim
