// Board configuration files (.vlcf) as the simulated board loads them: a file is taken whole or
// not at all. Half of the inputs get a correct checksum line, so that the lines behind the
// checksum are reached as often as the checksum itself.
#include <cstdio>
#include <string>

#include "BoardConfig.h"
#include "ConfigurationFile.h"
#include "OrvixBoard.h"
#include "ParameterStore.h"
#include "fuzz_support.h"

using namespace orvix::sim;
using orvix::Status;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const BoardConfig cameraLink = defaultBoard(0);
    static const BoardConfig coaxpress = defaultBoard(1);
    static lumetra::fuzz::MemoryFile file;
    lumetra::fuzz::InputReader in(data, size);
    const uint8_t mode = in.Byte();
    std::string text(reinterpret_cast<const char*>(in.data()), in.size());
    if (mode & 1) {
        if (!text.empty() && text.back() != '\n') {
            text += '\n';
        }
        char line[32];
        std::snprintf(line, sizeof line, "crc32=0x%08X\n", crc32Of(text));
        text += line;
    }
    ParameterStore store(mode & 2 ? coaxpress : cameraLink);
    const ParameterValues before = store.persistentValues();
    const Status s = loadConfiguration(store, file.Write(text));
    if (!s.ok()) {
        FUZZ_CHECK(s.code != ORVIX_ERR_NONE && s.code != ORVIX_ERR_NO_BOARD_SELECTED);
        FUZZ_CHECK(!s.text.empty());
        FUZZ_CHECK(store.persistentValues() == before);  // nothing of a refused file is applied
        return 0;
    }
    // Accepted: every line is in force, and the board writes it out as a file it reads again.
    ParameterValues lines;
    FUZZ_CHECK(parseConfiguration(text, store, lines).ok());
    for (const auto& [id, value] : lines) {
        FUZZ_CHECK(store.value(id) == value);
    }
    ParameterValues again;
    FUZZ_CHECK(parseConfiguration(serializeConfiguration(store, "fuzz"), store, again).ok());
    FUZZ_CHECK(again == store.persistentValues());
    return 0;
}
