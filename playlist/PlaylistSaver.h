#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/ServerDB.h"
#include "playlist/Playlist.h"
#include "sql/SqlStream.h"

namespace kestrow {

// Writes every playlist of a block into PLAYLISTS, one row per entry, in one
// transaction per block, and passes the operation on as a Block<void>.
// Opens its connections at the start of each block and closes them at the
// end; a database that cannot be opened throws std::runtime_error. Failed
// statements are logged and end the block's writing, never the stage.
class PlaylistSaver : public ServerDB<Block<Playlist*>, Block<void>> {
public:
    explicit PlaylistSaver(const char* name);

    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<Block<Playlist*>> input) override;

    bool written;  // set once a playlist of a block has been written
};

// Binds and steps one row per entry of `playlist` on the prepared
// "INSERT INTO PLAYLISTS(...)" statement of `stream`. The bound texts are the
// playlist's own: it must outlive the steps, which it does as they happen here.
sqlstl::basic_sqlostream<char>& operator<<(sqlstl::basic_sqlostream<char>& stream,
                                           const Playlist* playlist);

}  // namespace kestrow
