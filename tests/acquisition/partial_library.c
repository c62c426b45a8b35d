/* Exports the first operations of the board ABI only. */
#include <OrvixBoard.h>

ORVIX_API int OrvixGetBoardCount(int32_t boardType, int32_t* count) {
    (void)boardType;
    *count = 0;
    return ORVIX_SUCCESS;
}

ORVIX_API OrvixHandle OrvixOpen(int32_t boardType, int32_t index) {
    (void)boardType;
    (void)index;
    return ORVIX_INVALID_HANDLE;
}
