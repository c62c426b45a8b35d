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
    {"grab", RunGrab,
     "grab --once | --frames N | --seconds S [--snapshot FILE]\n"
     "                              grab frames; prints framesGrabbed, framesDisplayed,\n"
     "                              framesLost and fps"},
    {"convert", RunConvert,
     "convert IN OUT | --grab OUT [--mode N] [--bayer P] [--shift S | --adaptive] [--bits B]\n"
     "                              draw display mode N (0 to 13) of an image file or a grabbed\n"
     "                              frame into OUT; without --mode the image is written as read;\n"
     "                              *.raw holds samples only (16-bit little-endian): reading one\n"
     "                              needs --size WxH [--channels C] [--bits B]"},
};

}  // namespace lumetra::cli
