#include "orchestration/MtpPipeline.h"

#include "msd/ChangeFinder.h"
#include "msd/Normalizer.h"
#include "msd/SongSaver.h"
#include "mtp/MtpCrawler.h"
#include "mtp/MtpDirectorySaver.h"
#include "mtp/MtpMiner.h"
#include "mtp/MtpPlaylistMiner.h"
#include "playlist/PlaylistSaver.h"

namespace kestrow {

MtpPipeline::MtpPipeline(Kestrow* owner_)
    : SongDirectoryPipeline("MtpPipeline", owner_, MTP_OPERATION) {
    crawlerStage = new MtpCrawler("MtpCrawler");
    MtpDirectorySaver* directorySaver = new MtpDirectorySaver("MtpDirectorySaver");
    ChangeFinder* songFinder =
        new ChangeFinder("ChangeFinder-MtpSong", "SELECT ID, LASTMODIFIED, PATH FROM SONGS;",
                         "DELETE FROM SONGS WHERE ID = ?;", true);
    Normalizer* normalizer = new Normalizer("Normalizer");
    MtpMiner* miner = new MtpMiner("MtpMiner");
    SongSaver* songSaver = new SongSaver("SongSaver");
    MtpPlaylistMiner* playlistMiner = new MtpPlaylistMiner("MtpPlaylistMiner");
    ChangeFinder* playlistFinder = new ChangeFinder(
        "ChangeFinder-MtpPlaylist", "SELECT ID, LASTMODIFIED, PLAYPATH FROM VIEW_PLAYLISTNAMES;",
        "DELETE FROM PLAYLISTS WHERE PLAYID IN ( SELECT PLAYID FROM PLAYLISTS WHERE ID = ? );",
        true);
    PlaylistSaver* playlistSaver = new PlaylistSaver("PlaylistSaver");

    assemble(crawlerStage, songFinder, normalizer, miner, songSaver, playlistFinder, playlistMiner,
             playlistSaver, directorySaver);
}

BaseServer<Block<Directory*>>* MtpPipeline::crawler() {
    return crawlerStage;
}

}  // namespace kestrow
