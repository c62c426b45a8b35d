#include "base/process_flags.h"

namespace lumetra {

ProcessFlags& processFlags() {
    static ProcessFlags flags;
    return flags;
}

}  // namespace lumetra
