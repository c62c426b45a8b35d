// The command table of lumetra-cli.
#include "cli/cli_session.h"

namespace lumetra::cli {

const std::vector<Command> kCommands = {
    {"boards", RunBoards, "boards                        list the boards"},
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
     "        [--save DIR/NAME.EXT --count N] [--snapshot FILE] [--lzw] [--dpi X,Y]\n"
     "                              grab frames, record them as H.264 or numbered images\n"
     "                              (DIR is made when missing); prints framesGrabbed,\n"
     "                              framesDisplayed, framesLost and fps. The recording starts\n"
     "                              once the board reports its rate; with it, --frames N\n"
     "                              counts the recorded frames"},
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
     "                              draw display mode N (0 to 13) of an image file or a grabbed\n"
     "                              frame into OUT; without --mode the image is written as read;\n"
     "                              *.raw holds samples only (16-bit little-endian): reading one\n"
     "                              needs --size WxH [--channels C] [--bits B]"},
};

}  // namespace lumetra::cli
