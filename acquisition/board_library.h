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

// Passes every call to another library; a decorator overrides what it adds to (timing, fault
// injection). The inner library must outlive it.
class ForwardingBoardLibrary : public BoardLibrary {
  public:
    explicit ForwardingBoardLibrary(BoardLibrary& inner) : inner_(inner) {}

    int GetBoardCount(int32_t t, int32_t* c) override { return inner_.GetBoardCount(t, c); }
    OrvixHandle Open(int32_t t, int32_t i) override { return inner_.Open(t, i); }
    int GetBoardName(int32_t t, int32_t i, char* n, uint32_t* s) override {
        return inner_.GetBoardName(t, i, n, s);
    }
    int Close(OrvixHandle h) override { return inner_.Close(h); }
    int GetLastError(OrvixErrorInfo* e, int32_t c) override { return inner_.GetLastError(e, c); }
    int GetInfo(OrvixHandle h, uint32_t id, uint32_t* v) override {
        return inner_.GetInfo(h, id, v);
    }
    int SetInfo(OrvixHandle h, uint32_t id, uint32_t v) override {
        return inner_.SetInfo(h, id, v);
    }
    int RegisterCallback(OrvixHandle h, uint32_t ev, OrvixCallback fn, void* ctx) override {
        return inner_.RegisterCallback(h, ev, fn, ctx);
    }
    int UnRegisterCallback(OrvixHandle h, uint32_t ev) override {
        return inner_.UnRegisterCallback(h, ev);
    }
    int StartGrab(OrvixHandle h, uint32_t n) override { return inner_.StartGrab(h, n); }
    int StopGrab(OrvixHandle h) override { return inner_.StopGrab(h); }
    int GetBufferAddress(OrvixHandle h, uint32_t i, void** a) override {
        return inner_.GetBufferAddress(h, i, a);
    }
    int GetBufferStatusEx(OrvixHandle h, uint32_t i, OrvixBufferStatus* s) override {
        return inner_.GetBufferStatusEx(h, i, s);
    }
    int GetCameraStatus(OrvixHandle h, int32_t* s) override { return inner_.GetCameraStatus(h, s); }
    int GetFrameRate(OrvixHandle h, double* r) override { return inner_.GetFrameRate(h, r); }
    int LoadConfigurationFromFile(OrvixHandle h, const char* p) override {
        return inner_.LoadConfigurationFromFile(h, p);
    }
    int SaveConfigurationToFile(OrvixHandle h, const char* p) override {
        return inner_.SaveConfigurationToFile(h, p);
    }
    int ReadRegister(OrvixHandle h, uint32_t a, uint32_t* v) override {
        return inner_.ReadRegister(h, a, v);
    }
    int WriteRegister(OrvixHandle h, uint32_t a, uint32_t v) override {
        return inner_.WriteRegister(h, a, v);
    }
    std::optional<std::array<int, 4>> Version() override { return inner_.Version(); }
    std::string FileName() const override { return inner_.FileName(); }

  protected:
    BoardLibrary& inner_;
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
