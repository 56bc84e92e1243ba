#pragma once

#include "orchestration/SongDirectoryPipeline.h"

namespace kestrow {

class MSDCrawler;

// The pipeline of one mass-storage partition: nine stages in three chains
// (songs, playlists, directories), each ending in a saver whose `next` is
// this pipeline.
class MSDPipeline : public SongDirectoryPipeline {
public:
    explicit MSDPipeline(Kestrow* owner);

    BaseServer<Block<Directory*>>* crawler() override;

private:
    MSDCrawler* crawlerStage;
};

}  // namespace kestrow
