// The simulated board's INI (ORVIX_SIM_CONFIG): any text is either a catalog of boards whose
// parameters the board accepts, or one "file:line: reason" and no board.
#include <algorithm>
#include <string>
#include <string_view>

#include "BoardConfig.h"
#include "ConfigurationFile.h"
#include "ParameterStore.h"
#include "fuzz_support.h"

using namespace orvix::sim;
using orvix::Status;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const BoardCatalog catalog = parseBoardIni(text, "sim.ini");
    if (catalog.error) {
        FUZZ_CHECK(catalog.boards.empty());
        const int lines = static_cast<int>(std::count(text.begin(), text.end(), '\n')) + 1;
        FUZZ_CHECK(catalog.error->line >= 1 && catalog.error->line <= lines);
        FUZZ_CHECK(!catalog.error->reason.empty());
        FUZZ_CHECK(catalog.error->message().rfind("sim.ini:", 0) == 0);
        return 0;
    }
    for (const BoardConfig& board : catalog.boards) {
        FUZZ_CHECK(!board.name.empty());
        FUZZ_CHECK(board.buffers >= 1);
        // The board takes its own configuration: every value in range, the frame size sound, and
        // a configuration file of it reads back to the same values.
        ParameterStore store(board);
        const FrameFormat format = store.frameFormat();
        FUZZ_CHECK(format.frameBytes() == store.frameBytes());
        const ParameterValues values = store.persistentValues();
        for (const auto& [id, value] : values) {
            FUZZ_CHECK(store.check(id, value).ok() ||
                       std::find(board.failSet.begin(), board.failSet.end(), id) !=
                           board.failSet.end());
        }
        ParameterValues again;
        const Status parsed =
            parseConfiguration(serializeConfiguration(store, board.name), store, again);
        FUZZ_CHECK(parsed.ok());
        FUZZ_CHECK(again == values);
    }
    return 0;
}
