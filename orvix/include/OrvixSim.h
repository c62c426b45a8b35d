/*
 * OrvixSim: extra entry points of the simulated board only, for deterministic tests and demos.
 * Other board libraries do not export them: look them up with dlsym and do without when absent.
 *
 * With the manual clock on, a board's time stands still (starting at 0) and moves only through
 * these calls; frames, lost frames and signal edges then come exactly when the clock reaches
 * them, and every call below returns after the callbacks they caused have run. None of them may
 * be called from inside a board callback (they fail with ORVIX_ERR_REFUSED).
 */
#ifndef ORVIX_SIM_H
#define ORVIX_SIM_H

#include "OrvixBoard.h"

#ifdef __cplusplus
extern "C" {
#endif

/* on = 1: manual clock (reset to 0), on = 0: real time. Fails with 13 during a grab. */
ORVIX_API int OrvixSimSetManualClock(OrvixHandle handle, int32_t on);
/* Produces exactly the next `frames` frames of the running grab (a frame that times out counts),
 * moving the clock to each one's due time. Fails with 14 when no grab runs and with 4 when no
 * further frame is scheduled (trigger mode without a trigger, camera signal lost). */
ORVIX_API int OrvixSimAdvanceFrames(OrvixHandle handle, uint32_t frames);
/* Moves the clock by `microseconds` and delivers everything due by then. A step of more than a
 * whole ring of frames loses frames, as a consumer that stalled that long would. */
ORVIX_API int OrvixSimAdvanceTime(OrvixHandle handle, uint64_t microseconds);

#ifdef __cplusplus
}
#endif

#endif /* ORVIX_SIM_H */
