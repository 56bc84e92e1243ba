#include "playlist/PlaylistSaver.h"

#include <sqlite3.h>

#include "db/Timer.h"
#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

const char* const kInsertPlaylist =
    "INSERT INTO PLAYLISTS(PARTITION_ID, PLAYPATH, PLAYID, PLAYNAME, TRACKPATH, TRACKID, "
    "AUDIOTYPE, LASTMODIFIED) VALUES (?, ?, ?, ?, ?, ?, ?, ?);";

const int kAudioType = 1;

}  // namespace

sqlstl::basic_sqlostream<char>& operator<<(sqlstl::basic_sqlostream<char>& stream,
                                           const Playlist* playlist) {
    for (const PlaylistEntry* entry : playlist->entries) {
        stream << playlist->partitionId.c_str() << playlist->path.c_str() << playlist->id.c_str()
               << playlist->name.c_str() << entry->path.c_str()
               << (entry->isMtp ? entry->path.c_str() : entry->id.c_str()) << kAudioType
               << playlist->modified;
        stream << sqlstl::step<char, std::char_traits<char>>;
    }
    return stream;
}

PlaylistSaver::PlaylistSaver(const char* name_)
    : ServerDB<Block<Playlist*>, Block<void>>(name_), written(false) {}

boost::shared_ptr<Block<void>> PlaylistSaver::doOperation(
    boost::shared_ptr<Block<Playlist*>> input) {
    ZQLOG_INFO("PlaylistSaver for: %u (op: %d)", unsigned(input->items.size()),
               input->operation.id);
    Timer timer;
    open(input->operation.deviceId);

    boost::shared_ptr<Block<void>> output(new Block<void>());
    output->operation = input->operation;
    ostream.exec("BEGIN TRANSACTION;");
    ostream.query(kInsertPlaylist);
    for (const Playlist* playlist : input->items) {
        if (!playlist)
            continue;
        // One row per entry, no step after the last: it would play the last song twice.
        ostream << playlist;
        written = true;
        if (!playlist->entries.empty())
            output->operation.playlistsWritten.push_back(playlist->id.toString());
    }
    ostream.exec("END TRANSACTION;");
    ostream.finalize();

    ZQLOG_INFO("PlaylistSaver timer: %ld (op: %d)", timer.stop(), input->operation.id);
    ostream.close();
    istream.close();

    if (storageFailed())
        output->operation.writeFailed = true;
    return output;
}

}  // namespace kestrow
