#include "workbench/workbench.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

#include "acquisition/resource_config.h"
#include "base/process_flags.h"
#include "recording/recording_settings.h"
#include "workbench/status_texts.h"
#include "workbench/version_info.h"

namespace lumetra {
namespace {

std::string LowerExtension(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    const size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return {};
    }
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

std::string LocalTimeVideoName() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return DefaultVideoFileName(local);
}

}  // namespace

FileRequest ConfigurationFileRequest(bool save, const std::string& defaultName) {
    FileRequest r;
    r.title = save ? "Save Configuration File" : "Open Configuration File";
    r.filter = "Config File (*.vlcf)|*.vlcf||";
    r.defaultExtension = "vlcf";
    r.defaultName = defaultName;
    return r;
}

FileRequest VideoFileRequest(const std::string& defaultName) {
    FileRequest r;
    r.title = "Save Video File";
    r.filter = "File (*.h264)|*.h264||";
    r.defaultExtension = "Video h264";
    r.defaultName = defaultName;
    return r;
}

FileRequest ImageFileRequest(bool save, int imageTypeIndex, const std::string& folder) {
    FileRequest r;
    r.title = save ? "Save Image" : "Open Image";
    r.filter = save
                   ? "Bitmap (*.bmp)|*.bmp|JPEG (*.jpg)|*.jpg|PNG (*.png)|*.png|TIFF (*.tif)|*.tif|"
                     "Raw (*.raw)|*.raw||"
                   : "Image Files (*.bmp;*.jpg;*.jpeg;*.png;*.tif;*.tiff;*.raw)|"
                     "*.bmp;*.jpg;*.jpeg;*.png;*.tif;*.tiff;*.raw|All Files (*.*)|*.*||";
    r.defaultExtension = std::string(ImageTypeExtension(imageTypeIndex));
    r.folder = folder;
    return r;
}

std::string DefaultConfigurationName(int clConfiguration, int taps, int width, int height) {
    char name[96];
    std::snprintf(name, sizeof name, "cl%d_tap%d_w%d_h%d", clConfiguration, taps, width, height);
    return name;
}

Workbench::Workbench(const WorkbenchServices& s)
    : services_(s), clock_(s.clock != nullptr ? *s.clock : SystemClock()) {
    saver_ = std::make_unique<SequenceSaver>(*s.log);
    recorder_ = std::make_unique<VideoRecorder>(RecorderLinks{s.sink, s.clock, s.system});
    imageSaver_ = std::make_unique<ImageSaveWorker>(*s.log, s.sink);
    DocumentServices d;
    d.library = s.library;
    d.settings = s.settings;
    d.log = s.log;
    d.sink = s.sink;
    d.prompt = s.prompt;
    d.allocator = s.allocator;
    d.resourceConfigPath = s.resourceConfigPath;
    d.boardIndex = s.boardIndex;
    d.clock = s.clock;
    document_ = std::make_unique<CKELM_PCIE_VexCardDoc>(d);
    document_->grabEngine().setConsumers(saver_.get(), recorder_.get());
    grab_ = std::make_unique<GrabController>(*document_, *s.prompt);
    videoHost_ = std::make_unique<DocumentVideoHost>(*document_);
    video_ =
        std::make_unique<VideoController>(*recorder_, *videoHost_, *s.settings, *s.log, *s.prompt);
}

Workbench::~Workbench() {
    Shutdown();
}

void Workbench::Shutdown() {
    if (shutDown_) {
        return;
    }
    shutDown_ = true;
    pendingVideo_.reset();
    GrabEngine& e = engine();
    if (!e.idle() && document_->library() != nullptr) {
        document_->library()->StopGrab(document_->handle());
    }
    // The engine's threads and callbacks end first, so that no frame reaches a path that goes.
    e.Shutdown();
    saver_->Stop();
    recorder_->Stop();
    imageSaver_->Wait();
}

// ---- grab ----

void Workbench::GrabOnce() {
    grab_->SingleShot();
}

bool Workbench::GrabContinuous() {
    if (!grab_->StartContinuous()) {
        return false;
    }
    video_->OnContinuousGrabStarted();
    return true;
}

void Workbench::GrabStop() {
    pendingVideo_.reset();
    grab_->Stop();
}

void Workbench::SoftwareTrigger() {
    BoardLibrary* lib = document_->library();
    if (lib == nullptr || !document_->hasBoard()) {
        document_->Log("Board has not been selected.\n");
        return;
    }
    if (lib->SetInfo(document_->handle(), ORVIX_SOFTWARE_TRIGGER_FIRE, 1) != ORVIX_SUCCESS) {
        OrvixErrorInfo error{};
        lib->GetLastError(&error, 1);
        char text[96];
        std::snprintf(text, sizeof text, "Software trigger start fail.Error Code:%08x\n",
                      static_cast<uint32_t>(error.code));
        document_->Log(text);
    }
}

void Workbench::Calibration() {
    if (!document_->hasBoard()) {
        document_->Log("Board has not been selected.\n");
        return;
    }
    // The board is brought back to the document's parameter set and read back.
    document_->ApplyParameters();
    document_->ReadBackParameters();
    document_->Log("Calibration Pass\n");
}

// ---- configuration files ----

std::string Workbench::DefaultConfigurationName() const {
    const BoardParameters& p = document_->parameters();
    const ImageFormatRecord& f = document_->imageFormat();
    return lumetra::DefaultConfigurationName(p.clConfigIndex, static_cast<int>(p.taps()),
                                             static_cast<int>(f.width), static_cast<int>(f.height));
}

void Workbench::OpenConfiguration() {
    const auto path = services_.prompt->openFile(ConfigurationFileRequest(false));
    if (path) {
        LoadConfiguration(*path);
    }
}

bool Workbench::LoadConfiguration(const std::string& path) {
    BoardLibrary* lib = document_->library();
    const bool loaded = lib != nullptr && lib->LoadConfigurationFromFile(
                                              document_->handle(), path.c_str()) == ORVIX_SUCCESS;
    if (!loaded) {
        OrvixErrorInfo error{};
        if (lib != nullptr) {
            lib->GetLastError(&error, 1);
        }
        document_->Log(lib == nullptr || error.code == ORVIX_ERR_NO_BOARD_SELECTED
                           ? "No Board has been selected.Open configuration file fail.\n"
                           : "The selected configuration file is not the latest version or the "
                             "configuration parameter is invalid.Please select other "
                             "configuration file.\n");
        return false;
    }
    document_->ReadBackParameters();
    document_->AllocateFrameMemory();
    document_->Log("The configuration file was loaded successfully.\n");
    return true;
}

void Workbench::SaveConfiguration() {
    const auto path =
        services_.prompt->saveFile(ConfigurationFileRequest(true, DefaultConfigurationName()));
    if (path) {
        SaveConfigurationTo(*path);
    }
}

bool Workbench::SaveConfigurationTo(const std::string& path) {
    BoardLibrary* lib = document_->library();
    if (lib != nullptr &&
        lib->SaveConfigurationToFile(document_->handle(), path.c_str()) == ORVIX_SUCCESS) {
        document_->Log("Save configuration successful!");
        configurationModified_ = false;
        return true;
    }
    OrvixErrorInfo error{};
    if (lib != nullptr) {
        lib->GetLastError(&error, 1);
    }
    if (lib == nullptr || error.code == ORVIX_ERR_NO_BOARD_SELECTED) {
        document_->Log("No Board has been selected.Save configuration file fail.\n");
    } else {
        char text[80];
        std::snprintf(text, sizeof text, "Save configuration file fail.Error Code:%08x\n",
                      static_cast<uint32_t>(error.code));
        document_->Log(text);
    }
    return false;
}

PromptAnswer Workbench::OfferToSaveConfiguration() {
    if (!configurationModified_) {
        return PromptAnswer::kYes;
    }
    const std::string title = LoadResourceConfig(services_.resourceConfigPath.empty()
                                                     ? ResourceConfigPath(*services_.settings)
                                                     : services_.resourceConfigPath)
                                  .softwareName;
    const PromptAnswer answer =
        services_.prompt->question("Do you want to save the configuration file ?", title);
    if (answer != PromptAnswer::kYes) {
        return answer;
    }
    const auto path =
        services_.prompt->saveFile(ConfigurationFileRequest(true, DefaultConfigurationName()));
    if (!path) {
        return PromptAnswer::kCancel;
    }
    // As designed, the result of this save is not checked.
    BoardLibrary* lib = document_->library();
    if (lib != nullptr) {
        lib->SaveConfigurationToFile(document_->handle(), path->c_str());
    }
    configurationModified_ = false;
    return PromptAnswer::kYes;
}

// ---- images ----

void Workbench::SaveImage() {
    Settings& settings = *services_.settings;
    const int type =
        settings.readInt(recording_settings::kImageSave, recording_settings::kImageType, 0);
    const std::string folder = settings.readString(recording_settings::kImageSave, "SavePath", "");
    const auto path = services_.prompt->saveFile(ImageFileRequest(true, type, folder));
    if (path) {
        SaveImageTo(*path);
    }
}

ImageSaveOptions Workbench::imageSaveOptions() const {
    return ReadImageSaveOptions(*services_.settings);
}

bool Workbench::SaveImageTo(const std::string& path, const ImageSaveOptions& options) {
    return imageSaver_->SaveFrame(document_->frameImage(), path, options);
}

void Workbench::OpenImage() {
    Settings& settings = *services_.settings;
    const std::string folder = settings.readString(recording_settings::kImageSave, "SavePath", "");
    const auto path = services_.prompt->openFile(ImageFileRequest(false, 0, folder));
    if (path) {
        OpenFile(*path);
    }
}

bool Workbench::OpenFile(const std::string& path) {
    const std::string ext = LowerExtension(path);
    if (path.find("vlcf") != std::string::npos &&
        ImageFileTypeOf(path) == ImageFileType::kUnknown) {
        BoardLibrary* lib = document_->library();
        if (lib != nullptr &&
            lib->LoadConfigurationFromFile(document_->handle(), path.c_str()) == ORVIX_SUCCESS) {
            document_->ReadBackParameters();
            document_->AllocateFrameMemory();
            document_->Log("The configuration file was loaded successfully.\n");
            return true;
        }
        OrvixErrorInfo error{};
        if (lib != nullptr) {
            lib->GetLastError(&error, 1);
        }
        document_->Log(
            "The selected configuration file is not the latest version.Please select other "
            "file.\n");
        return false;
    }
    switch (ImageFileTypeOf(path)) {
        case ImageFileType::kUnknown:
            document_->Log("This software does not support opening this type of file.\n");
            return false;
        case ImageFileType::kRaw:
            document_->Log(OpenFailedText(path,
                                          "a raw image needs its width, height, channels "
                                          "and bits (Open Image asks for them)"));
            return false;
        default:
            return OpenImageIntoFrame(document_->frameImage(), path, *services_.log,
                                      services_.sink);
    }
}

bool Workbench::OpenRawImage(const std::string& path, const RawLayout& layout) {
    return ImportRawIntoFrame(document_->frameImage(), path, layout, *services_.log,
                              services_.sink);
}

// ---- sequences and video ----

bool Workbench::StartSequence(const std::string& path, int count, const ImageSaveOptions& options,
                              std::string& error) {
    SequenceRequest request;
    if (!SplitSequencePath(path, request.base, request.extension)) {
        error = "a sequence needs DIR/NAME.EXT, not '" + path + "'";
        return false;
    }
    const ImageFormatRecord& r = document_->imageFormat();
    FrameFormat f;
    f.width = static_cast<int>(r.width);
    f.height = static_cast<int>(r.height);
    f.bitsPerPixel = static_cast<int>(r.bitsPerPixel);
    f.channels = static_cast<int>(r.channels);
    f.rgbc = r.rgbdExtended;
    request.setGeometry(f);
    request.count = count;
    request.options = options;
    return saver_->Start(request, error);
}

void Workbench::StartVideo() {
    const auto path = services_.prompt->saveFile(VideoFileRequest(LocalTimeVideoName()));
    if (path) {
        StartVideoTo(*path);
    }
}

bool Workbench::StartVideoTo(const std::string& path) {
    pendingVideo_.reset();
    return video_->Start(path);
}

void Workbench::StopVideo() {
    pendingVideo_.reset();
    video_->Stop();
}

void Workbench::StartVideoWhenRated(const std::string& path, std::chrono::milliseconds patience) {
    pendingVideo_ = PendingVideo{path, clock_.now() + patience};
    StartPendingVideo(false);
}

void Workbench::StartPendingVideo(bool patienceOver) {
    if (!pendingVideo_) {
        return;
    }
    if (!engine().continuousRunning()) {
        pendingVideo_.reset();
        return;
    }
    if (!patienceOver && videoHost_->frameRate() <= 0) {
        return;
    }
    const std::string path = pendingVideo_->path;
    pendingVideo_.reset();
    video_->Start(path);
}

// ---- version, help ----

std::string Workbench::VersionText() const {
    BoardLibrary* lib = document_->library();
    std::optional<uint32_t> version;
    std::optional<uint32_t> serial;
    if (lib != nullptr && document_->hasBoard()) {
        uint32_t v = 0;
        uint32_t s = 0;
        if (lib->GetInfo(document_->handle(), ORVIX_BOARD_VERSION, &v) == ORVIX_SUCCESS) {
            version = v;
        }
        if (lib->GetInfo(document_->handle(), ORVIX_BOARD_SERIAL, &s) == ORVIX_SUCCESS) {
            serial = s;
        }
    }
    std::string text = BoardVersionText(version, serial, processFlags().coaxpress);
    if (lib != nullptr) {
        text += LibraryVersionText(lib->FileName(), lib->Version());
    }
    return text;
}

void Workbench::ShowVersion() {
    services_.prompt->information(VersionText());
}

void Workbench::ShowDocument() {
    if (services_.openFolder && !services_.helpFolder.empty()) {
        services_.openFolder(services_.helpFolder);
    }
}

void Workbench::ShowLog() {
    if (services_.openFolder && !services_.logFolder.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(services_.logFolder, ec);
        services_.openFolder(services_.logFolder);
    }
}

void Workbench::StartUp(bool suppressPrompt) {
    Settings& settings = *services_.settings;
    AppSettings* app = services_.appSettings;
    const int showPrompt =
        app != nullptr ? app->startupInfo : settings.readInt("StatusInfo", "StartupInfo", 1);
    if (!suppressPrompt && showPrompt != 0) {
        bool alwaysShow = true;
        const PromptAnswer answer = services_.prompt->startPrompt(alwaysShow);
        if (app != nullptr) {
            app->startupInfo = alwaysShow ? 1 : 0;
        } else {
            settings.writeInt("StatusInfo", "StartupInfo", alwaysShow ? 1 : 0);
        }
        if (answer == PromptAnswer::kOk) {
            ShowDocument();
        }
    }
    bool outdated = false;
    BoardLibrary* lib = document_->library();
    if (lib != nullptr && document_->hasBoard()) {
        uint32_t version = 0;
        if (lib->GetInfo(document_->handle(), ORVIX_BOARD_VERSION, &version) == ORVIX_SUCCESS) {
            outdated = FirmwareOutdated(version);
        }
    }
    if (lib != nullptr) {
        if (const auto v = lib->Version()) {
            outdated = outdated || LibraryOutdated(*v);
        }
    }
    if (outdated) {
        document_->Log(kUpdateText);
    }
}

// ---- rules ----

bool Workbench::CommandEnabled(int id) const {
    const GrabEngine& e = engine();
    const bool idle = e.idle();
    switch (id) {
        case cmd::kSaveImage:
            return !imageSaver_->busy();
        case cmd::kOpenImage:
        case cmd::kOpenConfiguration:
        case cmd::kBoardConfiguration:
        case cmd::kGrabOnce:
        case cmd::kGrabContinuous:
        case cmd::kVersion:
            return idle;
        case cmd::kSaveImageSequence:
            return e.continuousRunning();
        case cmd::kStartSaveVideo:
            return video_->canStart();
        case cmd::kStopSaveVideo:
            return e.continuousRunning() && recorder_->running();
        case cmd::kExit:
            return !e.continuousRunning();
        case cmd::kCalibration:
            return idle && !processFlags().coaxpress;
        case cmd::kSoftwareTrigger: {
            if (!e.continuousRunning() && e.singleShotIdle()) {
                return false;
            }
            const BoardParameters& p = document_->parameters();
            for (uint32_t source : {ORVIX_BOARD_TRIGGER_SOURCE, ORVIX_INTEGRATION_TRIGGER_SOURCE,
                                    ORVIX_STROBE_TRIGGER_SOURCE}) {
                if (p.get(source) == kSoftwareTriggerSource) {
                    return true;
                }
            }
            return false;
        }
        case cmd::kBayerPattern:
            return document_->parameters().bayerEnabled;
        default:
            return true;
    }
}

// ---- messages and timers ----

void Workbench::Handle(uint32_t message, intptr_t wParam, intptr_t lParam) {
    switch (message) {
        case msg::kGrabTimeout:
        case msg::kSignalLost:
        case msg::kFrameLost:
        case msg::kStopGrab:
            grab_->Handle(message, wParam, lParam);
            if (!engine().continuousRunning()) {
                pendingVideo_.reset();
            }
            return;
        case msg::kRate:
            if (pendingVideo_) {
                StartPendingVideo(clock_.now() >= pendingVideo_->deadline);
            }
            return;
        case msg::kVideoResult:
            video_->HandleResult(lParam);
            return;
        case msg::kImageSaved:
            document_->Log(kImageSavedText);
            return;
        case msg::kStartPrompt:
            StartUp(false);
            return;
        case msg::kPcieLink:
            ReadPcieLink();
            return;
        default:
            return;
    }
}

void Workbench::ReadPcieLink() {
    BoardLibrary* lib = document_->library();
    uint32_t word = 0;
    if (lib == nullptr || !document_->hasBoard() ||
        lib->GetInfo(document_->handle(), ORVIX_PCIE_LINK, &word) != ORVIX_SUCCESS) {
        return;  // the pane keeps its text
    }
    pcieLink_ = word;
    const PcieLink link = PcieLink::Of(word);
    if (services_.settings->readInt("StatusInfo", "PcieState", 1) != 0 &&
        PcieLinkInsufficient(link, processFlags().coaxpress, processFlags().modelCode)) {
        document_->Log(kPcieWarningText);
    }
}

bool Workbench::OnTimer(int id) {
    BoardLibrary* lib = document_->library();
    switch (id) {
        case timer::kCameraStatus:
            if (lib != nullptr && document_->hasBoard() && !engine().continuousRunning()) {
                int32_t status = 0x11FF;
                polledStatusReadable_ =
                    lib->GetCameraStatus(document_->handle(), &status) == ORVIX_SUCCESS;
                OrvixErrorInfo error{};
                lib->GetLastError(&error, 0);
                polledStatus_ = status;
                engine().cameraStatus = status;
            }
            return true;
        case timer::kPcieLink:
            if (lib != nullptr && document_->hasBoard()) {
                uint32_t state = 0;
                lib->GetInfo(document_->handle(), ORVIX_BOARD_STATE, &state);
                if (services_.sink != nullptr) {
                    services_.sink->post(msg::kPcieLink, 0, 0);
                }
            } else {
                document_->Log("No device has been selected.");
            }
            return false;
        default:
            return true;
    }
}

}  // namespace lumetra
