#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "playlist/Playlist.h"

namespace kestrow {

// Makes one Playlist per device playlist of a block (FileInfo::reserved is
// the playlist's object number), through an MtpConnection of the block's
// device, in input order; empty playlists yield none. A device gone by the
// end of the block marks the output deviceGone. Runs on the stage's own
// thread.
class MtpPlaylistMiner : public Server<Block<FileInfo*>, Block<Playlist*>> {
public:
    explicit MtpPlaylistMiner(const char* name);

    boost::shared_ptr<Block<Playlist*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;
};

}  // namespace kestrow
