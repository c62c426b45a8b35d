// BoardConfig.ini, the installation's resource file, and the profile-file reader behind it and
// ROIConfig.ini: any text reads as some set of keys, and what the reader writes back reads the
// same.
#include <string>

#include "acquisition/resource_config.h"
#include "base/ini_file.h"
#include "fuzz_support.h"

using namespace lumetra;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const ResourceConfig rc = LoadResourceConfig(file.Write(text));
    FUZZ_CHECK(rc.path == file.path());

    const IniFile ini = IniFile::Parse(text);
    FUZZ_CHECK(rc.softwareName == ini.value("Config", "SoftwareName", "Lumetra"));
    FUZZ_CHECK(rc.libraryName == ini.value("config", "LIBRARYNAME", "OrvixBoard"));
    FUZZ_CHECK(rc.softwareBackground == ini.value("CONFIG", "SoftwareBackground"));
    const std::string written = ini.text();
    const IniFile reread = IniFile::Parse(written);
    FUZZ_CHECK(reread.text() == written);
    FUZZ_CHECK(reread.value("Config", "SoftwareIcon") == rc.softwareIcon);
    (void)ini.intValue("Config", "SoftwareName", 7);
    return 0;
}
