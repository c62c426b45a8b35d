// The board library as the core calls it. The C ABI (OrvixBoard.h) is loaded at run time; the
// core talks to this interface so that tests can put a recording stand-in in its place.
#pragma once

#include <OrvixBoard.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace lumetra {

// One method per ABI operation, with the ABI's arguments and results. Thread: any, as the
// library allows.
class BoardLibrary {
  public:
    virtual ~BoardLibrary() = default;

    virtual int GetBoardCount(int32_t boardType, int32_t* count) = 0;
    virtual OrvixHandle Open(int32_t boardType, int32_t index) = 0;
    virtual int GetBoardName(int32_t boardType, int32_t index, char* name, uint32_t* size) = 0;
    virtual int Close(OrvixHandle handle) = 0;
    virtual int GetLastError(OrvixErrorInfo* error, int32_t clear) = 0;
    virtual int GetInfo(OrvixHandle handle, uint32_t id, uint32_t* value) = 0;
    virtual int SetInfo(OrvixHandle handle, uint32_t id, uint32_t value) = 0;
    virtual int RegisterCallback(OrvixHandle handle, uint32_t event, OrvixCallback function,
                                 void* context) = 0;
    virtual int UnRegisterCallback(OrvixHandle handle, uint32_t event) = 0;
    virtual int StartGrab(OrvixHandle handle, uint32_t frameCount) = 0;
    virtual int StopGrab(OrvixHandle handle) = 0;
    virtual int GetBufferAddress(OrvixHandle handle, uint32_t index, void** address) = 0;
    virtual int GetBufferStatusEx(OrvixHandle handle, uint32_t index,
                                  OrvixBufferStatus* status) = 0;
    virtual int GetCameraStatus(OrvixHandle handle, int32_t* status) = 0;
    virtual int GetFrameRate(OrvixHandle handle, double* rate) = 0;
    virtual int LoadConfigurationFromFile(OrvixHandle handle, const char* path) = 0;
    virtual int SaveConfigurationToFile(OrvixHandle handle, const char* path) = 0;
    virtual int ReadRegister(OrvixHandle handle, uint32_t address, uint32_t* value) = 0;
    virtual int WriteRegister(OrvixHandle handle, uint32_t address, uint32_t value) = 0;

    // Major, minor, build, revision; empty when the library cannot tell.
    virtual std::optional<std::array<int, 4>> Version() = 0;
    // File name of the library, for the version text.
    virtual std::string FileName() const = 0;
};

struct BoardLibraryLoad {
    std::unique_ptr<BoardLibrary> library;  // null when loading failed
    std::string error;                      // names the library or the missing symbol
};

// dlopen()s a library exporting the ABI. Every required symbol must be present; the version
// entry point is optional (the version then comes from the file name, libX.so.MAJOR.MINOR.BUILD).
BoardLibraryLoad LoadBoardLibrary(const std::string& path);

// Version numbers from a file name such as libOrvixBoard.so.1.8.0; empty when it has none.
std::optional<std::array<int, 4>> VersionFromFileName(std::string_view fileName);

// Which library to load, in this order: the command line, LUMETRA_BOARD_LIBRARY, the settings
// value, else the simulated board installed with the application.
struct BoardLibraryChoice {
    std::string path;
    std::string source;  // "command line", "environment", "settings" or "default"
};
BoardLibraryChoice ChooseBoardLibrary(std::string_view commandLine, const char* environment,
                                      std::string_view settingsValue, std::string_view defaultPath);

// The simulated board built and installed with the application: <prefix>/lib/<name>, where the
// executable lives in <prefix>/bin (the build tree has the same layout).
std::string DefaultBoardLibraryPath();

// Folder of the running executable.
std::string ExecutableDirectory();

}  // namespace lumetra
