#pragma once

#include "orchestration/SongDirectoryPipeline.h"

namespace kestrow {

class MtpCrawler;

// The pipeline of one MTP device: nine stages in three chains (songs,
// playlists, folders), each ending in a saver whose `next` is this pipeline.
// An MTP device has a database of its own: the change finders compare whole
// tables.
class MtpPipeline : public SongDirectoryPipeline {
public:
    explicit MtpPipeline(Kestrow* owner);

    BaseServer<Block<Directory*>>* crawler() override;

private:
    MtpCrawler* crawlerStage;
};

}  // namespace kestrow
