// The grab commands of the main frame (1 Shot, Continuous, Stop) and its reactions to the grab
// engine's messages. Thread: the user-interface thread.
#pragma once

#include <cstdint>

#include "acquisition/board_document.h"

namespace lumetra {

class GrabController {
  public:
    GrabController(CKELM_PCIE_VexCardDoc& document, Prompt& prompt)
        : doc_(document), prompt_(prompt) {}

    void SingleShot();       // "Grab (1 Shot)"
    bool StartContinuous();  // "Grab (Continuous)"; true when the grab runs
    void Stop();             // "Grab (Stop)"

    // The main frame's reaction to a message of the grab engine.
    void Handle(uint32_t message, intptr_t wParam, intptr_t lParam);

    // No continuous grab running and no single shot under way.
    bool idle() const { return doc_.grabEngine().idle(); }
    bool frameLost() const { return frameLost_; }

  private:
    bool Refuse(bool continuousCommand);

    CKELM_PCIE_VexCardDoc& doc_;
    Prompt& prompt_;
    bool frameLost_ = false;
};

}  // namespace lumetra
