#include "workbench/workbench.h"

namespace lumetra {

Workbench::Workbench(const WorkbenchServices& s) : services_(s) {
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
    // No frame may reach a recording path that is going: the engine ends with the document.
    document_.reset();
}

}  // namespace lumetra
