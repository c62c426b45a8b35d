// Mesa unloads its DRI driver at exit, before LeakSanitizer looks, so what the driver keeps for
// the life of the process shows up as leaks of an unknown module that no suppression can name.
// Held loaded here for the whole process, those allocations keep the driver's name, and the GUI
// tests' suppressions (lsan_gui.supp) apply to the driver alone.
#include <dlfcn.h>

namespace {

const bool kDriverHeld = [] {
#ifdef LUMETRA_MESA_DRIVER
    return dlopen(LUMETRA_MESA_DRIVER, RTLD_LAZY | RTLD_NODELETE) != nullptr;
#else
    return false;
#endif
}();

}  // namespace
