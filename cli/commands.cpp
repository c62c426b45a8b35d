// The command table of lumetra-cli.
#include "cli/cli_session.h"

namespace lumetra::cli {

const std::vector<Command> kCommands = {
    {"boards", RunBoards,
     "boards [--discover]           list the boards; --discover has a board library that\n"
     "                              finds cameras on a network search for them (it broadcasts)"},
    {"info", RunInfo, "info                          open a board and print its parameters"},
    {"set", RunSet,
     "set KEY=VALUE ... [--jpeg 0/1] [--rgbd 0/1]\n"
     "                              change parameters: ids (0x10000002=1000) or width, height,\n"
     "                              taps, imageType, dataFormat, bayer, offsetX, triggerMode,\n"
     "                              triggerSource"},
    {"config", RunConfig,
     "config save FILE | config load FILE\n"
     "                              save the board's parameters to a configuration file (.vlcf),\n"
     "                              or load one into the board and print the parameters"},
    {"grab", RunGrab,
     "grab --once | --frames N | --seconds S [--record FILE.h264]\n"
     "        [--save DIR/NAME.EXT --count N] [--snapshot FILE]\n"
     "        [--lzw | --tiff-compression none|lzw|deflate|zstd] [--dpi X,Y]\n"
     "                              grab frames, record them as H.264 or numbered images\n"
     "                              (bmp, jpg, png, tif, raw, pgm, ppm; DIR is made when\n"
     "                              missing; one encoder per core); prints framesGrabbed,\n"
     "                              framesDisplayed, framesLost and fps, and the frames saved\n"
     "                              and missed. The recording starts once the board reports\n"
     "                              its rate; with it, --frames N counts the recorded frames.\n"
     "                              TIFF resolution X,Y: 96 to 1000 dots per inch"},
    {"analyze", RunAnalyze,
     "analyze FILE | --grab [--bits B] [--row R] [--col C] [--channel K]\n"
     "        [--roi X0,Y0,X1,Y1] [--bad MODE,LOW,HIGH,HCOUNT,VCOUNT [--frames N] [--csv FILE]\n"
     "        [--csv-horizontal FILE] [--csv-vertical FILE]] [--profile-row R]\n"
     "                              histograms, channel means, row/column and ROI statistics,\n"
     "                              bad pixels and a row profile of an image or a grabbed frame"},
    {"signals", RunSignals,
     "signals --seconds S --inputs 1,2,3 [--record-statistical] [--falling]\n"
     "                              count the edges on the board's input signals"},
    {"convert", RunConvert,
     "convert IN OUT | --grab OUT [--mode N] [--bayer P] [--shift S | --adaptive] [--bits B]\n"
     "        [--lzw | --tiff-compression none|lzw|deflate|zstd] [--dpi X,Y]\n"
     "                              draw display mode N (0 to 13) of an image file or a grabbed\n"
     "                              frame into OUT (bmp, jpg, png, tif, raw, pgm, ppm); without\n"
     "                              --mode the image is written as read; the TIFF options are\n"
     "                              for a .tif OUT; *.raw holds samples only (16-bit\n"
     "                              little-endian): reading one needs --size WxH\n"
     "                              [--channels C] [--bits B]"},
};

}  // namespace lumetra::cli
