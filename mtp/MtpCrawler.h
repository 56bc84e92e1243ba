#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/Directory.h"
#include "msd/FileInfo.h"
#include "mtp/MtpDirectory.h"

namespace kestrow {

// The first stage of an MTP device's pipeline. For the device of the
// operation it marks the device connected in the MtpDevice registry, walks
// its folders, waits (at most 25 seconds) until the device is announced
// ready, loads its catalogue and sorts it into three blocks: the tracks,
// returned to the run loop for `next`; the playlists, marked last and
// enqueued into the playlist target; the folders that hold tracks, marked
// last and enqueued into the folder target. A device that is not ready, gone
// or whose catalogue cannot be loaded marks all three blocks deviceGone.
//
// Records are FileInfo{raw path, object id, 0} for tracks,
// FileInfo{"mtp-playlist://<id>", id, 0} for playlists.
//
// The targets are not owned and are wired before launch(); either may be
// null. doOperation and signalCompletion run on the stage's thread; the
// incoming block must hold at least one Directory (std::out_of_range).
class MtpCrawler : public Server<Block<Directory*>, Block<FileInfo*>> {
public:
    explicit MtpCrawler(const char* name);

    void setPlaylistSink(BaseServer<Block<FileInfo*>>* sink);
    void setDirectorySink(BaseServer<Block<MtpDirectory*>>* sink);

    boost::shared_ptr<Block<FileInfo*>> doOperation(
        boost::shared_ptr<Block<Directory*>> in) override;
    // Emits crawlingFinished(mount point) while the stage runs.
    void signalCompletion(const Operation& op) override;

private:
    BaseServer<Block<FileInfo*>>* playlistSink;
    BaseServer<Block<MtpDirectory*>>* directorySink;
};

}  // namespace kestrow
