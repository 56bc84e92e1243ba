#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "playlist/Playlist.h"
#include "playlist/PlaylistWrapper.h"

namespace kestrow {

// Turns each playlist file of a block into one Playlist holding the tracks
// that the file names, in order. A file that cannot be parsed still yields
// its Playlist, with the entries found before the failure (usually none).
// The parse runs on the stage's own thread; the host needs no GLib main loop.
class MSDPlaylistMiner : public Server<Block<FileInfo*>, Block<Playlist*>> {
public:
    explicit MSDPlaylistMiner(const char* name);

    boost::shared_ptr<Block<Playlist*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> input) override;
};

// Parses the file at wrapper->playlist->path on the calling thread and
// appends its entries to wrapper->playlist; then broadcasts wrapper->cond
// under wrapper->mutex. Logs the parser's result; parse failures are not thrown.
void extractPlaylist(PlaylistWrapper* wrapper);

}  // namespace kestrow
