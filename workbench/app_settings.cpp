#include "workbench/app_settings.h"

namespace lumetra {
namespace {

// One integer setting: where it lives and which field holds it.
struct IntSetting {
    const char* section;
    const char* name;
    int AppSettings::*field;
};

// Read and written under the same names.
constexpr IntSetting kPlain[] = {
    {"ruler", "OnePixelLength", &AppSettings::onePixelLength},
    {"ruler", "Uint", &AppSettings::unit},
    {"ImageSave", "SaveReadType", &AppSettings::saveReadType},
    {"ImageSave", "Intercept", &AppSettings::intercept},
    {"ImageSave", "ShiftIntercept", &AppSettings::shiftIntercept},
    {"ImageSave", "ImageType", &AppSettings::imageType},
    {"StatusInfo", "BufferCount", &AppSettings::bufferCount},
    {"StatusInfo", "BufferAuto", &AppSettings::bufferAuto},
    {"StatusInfo", "TifCompression", &AppSettings::tifCompression},
    {"StatusInfo", "TifDpiX", &AppSettings::tifDpiX},
    {"StatusInfo", "TifDpiY", &AppSettings::tifDpiY},
    {"StatusInfo", "Rate", &AppSettings::rate},
    {"StatusInfo", "PixelClockNum", &AppSettings::pixelClockNum},
    {"StatusInfo", "SerialPort", &AppSettings::serialPort},
    {"StatusInfo", "FrameGrabber", &AppSettings::frameGrabber},
    {"StatusInfo", "Marker", &AppSettings::marker},
    {"StatusInfo", "PcieState", &AppSettings::pcieState},
    {"StatusInfo", "PixelClock", &AppSettings::pixelClock},
    {"StatusInfo", "LineValid", &AppSettings::lineValid},
    {"StatusInfo", "FrameValid", &AppSettings::frameValid},
    {"StatusInfo", "StartupInfo", &AppSettings::startupInfo},
    {"Video", "FrameRate", &AppSettings::frameRate},
};

}  // namespace

AppSettings AppSettings::Load(Settings& s, const std::string& picturesFolder) {
    AppSettings a;
    for (const IntSetting& v : kPlain) {
        a.*v.field = s.readInt(v.section, v.name, a.*v.field);
    }
    a.frameLost = s.readInt("StatusInfo", "FrameLost", a.frameLost);
    a.connect = s.readInt("StatusInfo", "Connect", a.connect);
    a.savePath = s.readString("ImageSave", "SavePath", picturesFolder);
    return a;
}

void AppSettings::Save(Settings& s) const {
    for (const IntSetting& v : kPlain) {
        s.writeInt(v.section, v.name, this->*v.field);
    }
    // Kept as they were designed: these two go where the next start does not read them.
    s.writeInt("StatusInfo", "Frame Lost", frameLost);
    s.writeInt("Connect", "FrameValid", connect);
    s.writeString("ImageSave", "SavePath", savePath);
}

}  // namespace lumetra
