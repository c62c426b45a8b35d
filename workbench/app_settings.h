// The application's settings: every value with its section, name and default, read at start-up
// and written back at exit. Two writes differ from their reads on purpose (see Save): a user who
// turns the frame-lost pane or the connection indicator off finds it on again at the next start.
#pragma once

#include <string>

#include "base/settings.h"

namespace lumetra {

struct AppSettings {
    // "ruler"
    int onePixelLength = 1000;  // thousandths of the ruler unit
    int unit = 0;               // "Uint"
    // "ImageSave"
    int saveReadType = 0;
    int intercept = 0;
    int shiftIntercept = 0;
    int imageType = 0;
    std::string savePath;  // default: the user's pictures folder, given to Load
    // "StatusInfo"
    int bufferCount = 5;
    int bufferAuto = 1;
    int tifCompression = 0;
    int tifDpiX = 96;
    int tifDpiY = 96;
    int rate = 1;
    int pixelClockNum = 1;
    int serialPort = 1;
    int frameGrabber = 1;
    int marker = 1;
    int frameLost = 1;
    int pcieState = 1;
    int pixelClock = 1;
    int lineValid = 1;
    int frameValid = 1;
    int connect = 1;
    int startupInfo = 1;
    // "Video"
    int frameRate = 30;

    // Each value with its default when missing; picturesFolder is SavePath's default.
    static AppSettings Load(Settings& settings, const std::string& picturesFolder);
    // Every value written back, the frame-lost flag under "Frame Lost" (read from "FrameLost")
    // and the connection flag under "Connect"/"FrameValid" (read from "StatusInfo"/"Connect").
    void Save(Settings& settings) const;

    // The length of one pixel in ruler units.
    double pixelLength() const { return onePixelLength / 1000.0; }
};

}  // namespace lumetra
