#pragma once

#include <boost/shared_ptr.hpp>
#include <string>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "playlist/FoldedFolders.h"
#include "playlist/Playlist.h"
#include "playlist/PlaylistWrapper.h"

namespace kestrow {

// Turns each playlist file of a block into one Playlist holding the tracks
// that the file names, in order, each by the path the crawler gives its file
// (a remote entry by its whole URI), so that an entry's id is its song's.
// A file that cannot be parsed still yields its Playlist, with the entries
// found before the failure (usually none).
// The parse runs on the stage's own thread; the host needs no GLib main loop.
class MSDPlaylistMiner : public Server<Block<FileInfo*>, Block<Playlist*>> {
public:
    explicit MSDPlaylistMiner(const char* name);

    boost::shared_ptr<Block<Playlist*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> input) override;
};

// Parses the file at wrapper->playlist->path, found below `mountPoint`, on
// the calling thread and appends its entries to wrapper->playlist, each named
// by the path the crawler gives its file (TrackPathResolver), spelled as the
// device lists it (FoldedFolders: `folders` when given, kept over a pass, else
// one of its own); then broadcasts wrapper->cond under wrapper->mutex. Logs
// the parser's result; parse failures are not thrown. The parser's GLib
// messages go to the log.
void extractPlaylist(PlaylistWrapper* wrapper, const std::string& mountPoint,
                     FoldedFolders* folders = nullptr);

}  // namespace kestrow
