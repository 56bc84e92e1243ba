#include "orchestration/MSDPipeline.h"

#include "msd/ChangeFinder.h"
#include "msd/DirectorySaver.h"
#include "msd/MSDCrawler.h"
#include "msd/MSDMiner.h"
#include "msd/Normalizer.h"
#include "msd/SongSaver.h"
#include "platform/common/MountPointScope.h"
#include "playlist/MSDPlaylistMiner.h"
#include "playlist/PlaylistSaver.h"

namespace kestrow {

MSDPipeline::MSDPipeline(Kestrow* owner_)
    : SongDirectoryPipeline("MSDPipeline", owner_, MSD_OPERATION) {
    crawlerStage = new MSDCrawler("MSDCrawler");
    DirectorySaver* directorySaver = new DirectorySaver("DirectorySaver");
    // The selects end in the mount point's condition, the mount point bound to ?1.
    // Times are not compared exactly: a stick whose clock moved by whole hours
    // (FAT keeps local time) or by up to 2 s keeps its rows, given their new time.
    ChangeFinder* songFinder =
        new ChangeFinder("ChangeFinder-MSDSongs",
                         "SELECT ID,LASTMODIFIED, PATH  FROM SONGS WHERE " +
                             MountPointScope::sqlCondition("PATH") + ";",
                         "DELETE FROM SONGS WHERE ID = ?;", false,
                         "UPDATE SONGS SET LASTMODIFIED = ?1 WHERE ID = ?2;");
    Normalizer* normalizer = new Normalizer("Normalizer");
    MSDMiner* miner = new MSDMiner("MSDMiner");
    SongSaver* songSaver = new SongSaver("SongSaver");
    MSDPlaylistMiner* playlistMiner = new MSDPlaylistMiner("MSDPlaylistMiner");
    ChangeFinder* playlistFinder = new ChangeFinder(
        "ChangeFinder-MSDPlaylist",
        "SELECT ID, LASTMODIFIED, PLAYPATH FROM VIEW_PLAYLISTNAMES WHERE " +
            MountPointScope::sqlCondition("PLAYPATH") + ";",
        "DELETE FROM PLAYLISTS WHERE PLAYID IN ( SELECT PLAYID FROM PLAYLISTS WHERE ID = ? );",
        false,
        "UPDATE PLAYLISTS SET LASTMODIFIED = ?1 WHERE PLAYID IN (SELECT PLAYID FROM PLAYLISTS "
        "WHERE ID = ?2);");
    PlaylistSaver* playlistSaver = new PlaylistSaver("PlaylistSaver");

    assemble(crawlerStage, songFinder, normalizer, miner, songSaver, playlistFinder, playlistMiner,
             playlistSaver, directorySaver);
}

BaseServer<Block<Directory*>>* MSDPipeline::crawler() {
    return crawlerStage;
}

}  // namespace kestrow
