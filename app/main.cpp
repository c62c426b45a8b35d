// lumetra: the workbench window.
#include <QApplication>
#include <QCommandLineParser>

#include "app/application.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setOrganizationName("KELM-Lumetra");
    QApplication::setApplicationName("Lumetra");
    QApplication::setApplicationVersion(LUMETRA_VERSION);
    QApplication::setDesktopFileName("lumetra");

    QCommandLineParser parser;
    parser.setApplicationDescription("Image acquisition workbench for frame-grabber boards");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption library("board-library", "The board library to load.", "path");
    const QCommandLineOption board("board", "Open only this board (from 0).", "index");
    parser.addOption(library);
    parser.addOption(board);
    parser.addPositionalArgument("files", "Image or configuration (.vlcf) files to open.",
                                 "[files...]");
    parser.process(app);

    lumetra::AppOptions options;
    options.boardLibrary = parser.value(library);
    options.board = parser.isSet(board) ? parser.value(board).toInt() : -1;
    options.files = parser.positionalArguments();
    lumetra::CKELM_PCIE_VexCardApp lumetra(options);
    if (!lumetra.InitInstance()) {
        return 1;
    }
    return app.exec();
}
