// Linked into every program of an AddressSanitizer build; weak, so that a program with options of
// its own replaces it.
#include "asan_options.h"

extern "C" __attribute__((weak)) const char* __asan_default_options() {
    return LUMETRA_ASAN_DEFAULT_OPTIONS;
}
