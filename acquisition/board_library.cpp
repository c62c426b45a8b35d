#include "acquisition/board_library.h"

#include <dlfcn.h>

#include <charconv>
#include <filesystem>

namespace lumetra {
namespace {

// The ABI's function table, filled from the loaded library.
struct OrvixApi {
    decltype(&::OrvixGetBoardCount) GetBoardCount = nullptr;
    decltype(&::OrvixOpen) Open = nullptr;
    decltype(&::OrvixGetBoardName) GetBoardName = nullptr;
    decltype(&::OrvixClose) Close = nullptr;
    decltype(&::OrvixGetLastError) GetLastError = nullptr;
    decltype(&::OrvixGetInfo) GetInfo = nullptr;
    decltype(&::OrvixSetInfo) SetInfo = nullptr;
    decltype(&::OrvixRegisterCallback) RegisterCallback = nullptr;
    decltype(&::OrvixUnRegisterCallback) UnRegisterCallback = nullptr;
    decltype(&::OrvixStartGrab) StartGrab = nullptr;
    decltype(&::OrvixStopGrab) StopGrab = nullptr;
    decltype(&::OrvixGetBufferAddress) GetBufferAddress = nullptr;
    decltype(&::OrvixGetBufferStatusEx) GetBufferStatusEx = nullptr;
    decltype(&::OrvixGetCameraStatus) GetCameraStatus = nullptr;
    decltype(&::OrvixGetFrameRate) GetFrameRate = nullptr;
    decltype(&::OrvixLoadConfigurationFromFile) LoadConfigurationFromFile = nullptr;
    decltype(&::OrvixSaveConfigurationToFile) SaveConfigurationToFile = nullptr;
    decltype(&::OrvixReadRegister) ReadRegister = nullptr;
    decltype(&::OrvixWriteRegister) WriteRegister = nullptr;
    decltype(&::OrvixGetVersion) GetVersion = nullptr;  // optional
};

class DynamicBoardLibrary final : public BoardLibrary {
  public:
    DynamicBoardLibrary(void* handle, const OrvixApi& api, std::string path)
        : handle_(handle), api_(api), path_(std::move(path)) {}
    ~DynamicBoardLibrary() override { dlclose(handle_); }
    DynamicBoardLibrary(const DynamicBoardLibrary&) = delete;
    DynamicBoardLibrary& operator=(const DynamicBoardLibrary&) = delete;

    int GetBoardCount(int32_t type, int32_t* count) override {
        return api_.GetBoardCount(type, count);
    }
    OrvixHandle Open(int32_t type, int32_t index) override { return api_.Open(type, index); }
    int GetBoardName(int32_t type, int32_t index, char* name, uint32_t* size) override {
        return api_.GetBoardName(type, index, name, size);
    }
    int Close(OrvixHandle h) override { return api_.Close(h); }
    int GetLastError(OrvixErrorInfo* e, int32_t clear) override {
        return api_.GetLastError(e, clear);
    }
    int GetInfo(OrvixHandle h, uint32_t id, uint32_t* v) override { return api_.GetInfo(h, id, v); }
    int SetInfo(OrvixHandle h, uint32_t id, uint32_t v) override { return api_.SetInfo(h, id, v); }
    int RegisterCallback(OrvixHandle h, uint32_t ev, OrvixCallback fn, void* ctx) override {
        return api_.RegisterCallback(h, ev, fn, ctx);
    }
    int UnRegisterCallback(OrvixHandle h, uint32_t ev) override {
        return api_.UnRegisterCallback(h, ev);
    }
    int StartGrab(OrvixHandle h, uint32_t n) override { return api_.StartGrab(h, n); }
    int StopGrab(OrvixHandle h) override { return api_.StopGrab(h); }
    int GetBufferAddress(OrvixHandle h, uint32_t i, void** a) override {
        return api_.GetBufferAddress(h, i, a);
    }
    int GetBufferStatusEx(OrvixHandle h, uint32_t i, OrvixBufferStatus* s) override {
        return api_.GetBufferStatusEx(h, i, s);
    }
    int GetCameraStatus(OrvixHandle h, int32_t* s) override { return api_.GetCameraStatus(h, s); }
    int GetFrameRate(OrvixHandle h, double* r) override { return api_.GetFrameRate(h, r); }
    int LoadConfigurationFromFile(OrvixHandle h, const char* p) override {
        return api_.LoadConfigurationFromFile(h, p);
    }
    int SaveConfigurationToFile(OrvixHandle h, const char* p) override {
        return api_.SaveConfigurationToFile(h, p);
    }
    int ReadRegister(OrvixHandle h, uint32_t a, uint32_t* v) override {
        return api_.ReadRegister(h, a, v);
    }
    int WriteRegister(OrvixHandle h, uint32_t a, uint32_t v) override {
        return api_.WriteRegister(h, a, v);
    }

    std::optional<std::array<int, 4>> Version() override {
        if (api_.GetVersion != nullptr) {
            int32_t v[4] = {};
            if (api_.GetVersion(&v[0], &v[1], &v[2], &v[3]) == ORVIX_SUCCESS) {
                return std::array<int, 4>{v[0], v[1], v[2], v[3]};
            }
        }
        return VersionFromFileName(FileName());
    }
    std::string FileName() const override {
        return std::filesystem::path(path_).filename().string();
    }

  private:
    void* handle_;
    OrvixApi api_;
    std::string path_;
};

template <typename Fn>
bool resolve(void* handle, const char* name, Fn& slot, std::string& missing) {
    slot = reinterpret_cast<Fn>(dlsym(handle, name));
    if (slot == nullptr && missing.empty()) {
        missing = name;
    }
    return slot != nullptr;
}

}  // namespace

BoardLibraryLoad LoadBoardLibrary(const std::string& path) {
    BoardLibraryLoad result;
    if (path.empty()) {
        // dlopen("") would hand back the program itself.
        result.error = "No board library given";
        return result;
    }
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        result.error = "Cannot load board library " + path + ": " + (why ? why : "unknown error");
        return result;
    }
    OrvixApi api;
    std::string missing;
    resolve(handle, "OrvixGetBoardCount", api.GetBoardCount, missing);
    resolve(handle, "OrvixOpen", api.Open, missing);
    resolve(handle, "OrvixGetBoardName", api.GetBoardName, missing);
    resolve(handle, "OrvixClose", api.Close, missing);
    resolve(handle, "OrvixGetLastError", api.GetLastError, missing);
    resolve(handle, "OrvixGetInfo", api.GetInfo, missing);
    resolve(handle, "OrvixSetInfo", api.SetInfo, missing);
    resolve(handle, "OrvixRegisterCallback", api.RegisterCallback, missing);
    resolve(handle, "OrvixUnRegisterCallback", api.UnRegisterCallback, missing);
    resolve(handle, "OrvixStartGrab", api.StartGrab, missing);
    resolve(handle, "OrvixStopGrab", api.StopGrab, missing);
    resolve(handle, "OrvixGetBufferAddress", api.GetBufferAddress, missing);
    resolve(handle, "OrvixGetBufferStatusEx", api.GetBufferStatusEx, missing);
    resolve(handle, "OrvixGetCameraStatus", api.GetCameraStatus, missing);
    resolve(handle, "OrvixGetFrameRate", api.GetFrameRate, missing);
    resolve(handle, "OrvixLoadConfigurationFromFile", api.LoadConfigurationFromFile, missing);
    resolve(handle, "OrvixSaveConfigurationToFile", api.SaveConfigurationToFile, missing);
    resolve(handle, "OrvixReadRegister", api.ReadRegister, missing);
    resolve(handle, "OrvixWriteRegister", api.WriteRegister, missing);
    if (!missing.empty()) {
        dlclose(handle);
        result.error = "Board library " + path + " lacks the symbol " + missing;
        return result;
    }
    std::string optionalMissing;
    resolve(handle, "OrvixGetVersion", api.GetVersion, optionalMissing);
    result.library = std::make_unique<DynamicBoardLibrary>(handle, api, path);
    return result;
}

std::optional<std::array<int, 4>> VersionFromFileName(std::string_view fileName) {
    auto so = fileName.find(".so.");
    if (so == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view rest = fileName.substr(so + 4);
    std::array<int, 4> v{0, 0, 0, 0};
    for (size_t i = 0; i < v.size() && !rest.empty(); ++i) {
        auto [p, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), v[i]);
        if (ec != std::errc()) {
            return std::nullopt;
        }
        rest.remove_prefix(static_cast<size_t>(p - rest.data()));
        if (!rest.empty()) {
            if (rest.front() != '.') {
                return std::nullopt;
            }
            rest.remove_prefix(1);
        }
    }
    return v;
}

BoardLibraryChoice ChooseBoardLibrary(std::string_view commandLine, const char* environment,
                                      std::string_view settingsValue,
                                      std::string_view defaultPath) {
    if (!commandLine.empty()) {
        return {std::string(commandLine), "command line"};
    }
    if (environment != nullptr && *environment != '\0') {
        return {environment, "environment"};
    }
    if (!settingsValue.empty()) {
        return {std::string(settingsValue), "settings"};
    }
    return {std::string(defaultPath), "default"};
}

std::string ExecutableDirectory() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return ".";
    }
    return exe.parent_path().string();
}

std::string DefaultBoardLibraryPath() {
    auto dir = std::filesystem::path(ExecutableDirectory());
    return (dir.parent_path() / "lib" / LUMETRA_DEFAULT_BOARD_LIBRARY).string();
}

}  // namespace lumetra
