#include "msd/SongSaver.h"

#include <sqlite3.h>

#include <algorithm>
#include <string>

#include "db/Timer.h"
#include "platform/common/DatabaseMgr.h"

namespace {

// Texts as executed; the wide runs of blanks belong to them.
const char kInsertSong[] =
    "INSERT INTO SONGS (PARTITION_ID,                                        PATH,                 "
    "                       OBJECTID,                                        DIRECTORYID,          "
    "                              NAME,                                        TITLE,             "
    "                           ARTISTID,                                        ALBUMID,          "
    "                              GENREID,                                        COMPOSERID,     "
    "                                   AUDIOTYPE,                                        "
    "BOOKMARK,                                        LASTMODIFIED,                                "
    "       TRACKIND,                                       DISCNUM,                               "
    "        ASIANTITLE                                         )                                  "
    "      VALUES                                        (?,                                       "
    " ?,                                        ?,                                        ?,       "
    "                                 ?,                                        ?,                 "
    "                       ?,                                        ?,                           "
    "             ?,                                        ?,                                     "
    "   ?,                                        ?,                                        ?,     "
    "                                   ?,                                        ?,               "
    "                         ?);";

const char kReplaceGenre[] =
    "REPLACE INTO GENRES (GENREID ,                                        GENRE,                  "
    "                      ASIANGENRE                                       )                      "
    "                  VALUES                                        (?,                           "
    "             ?,                                        ?);";

const char kReplaceAlbum[] =
    "REPLACE INTO ALBUMS (ALBUMID  ,                                        ALBUM,                 "
    "                       ASIANALBUM                                       )                     "
    "                   VALUES                                        (?,                          "
    "              ?,                                        ?);";

const char kReplaceArtist[] =
    "REPLACE INTO ARTISTS (ARTISTID,                                        ARTIST,                "
    "                        ASIANARTIST                                       )                   "
    "                     VALUES                                        (?,                        "
    "                ?,                                        ?);";

const char kReplaceComposer[] =
    "REPLACE INTO COMPOSERS (COMPOSERID  ,                                        COMPOSER,        "
    "                                ASIANCOMPOSER                                       )         "
    "                               VALUES                                        (?,              "
    "                          ?,                                        ?);";

const std::string kCleanUp =
    std::string("BEGIN TRANSACTION; ") + DatabaseMgr::kLookupCleanup + "COMMIT;";

}  // namespace

bool sortOnGenre(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->genreId < b->genreId;
}
bool uniqueOnGenre(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->genreId == b->genreId;
}
bool sortOnAlbum(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->albumId < b->albumId;
}
bool uniqueOnAlbum(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->albumId == b->albumId;
}
bool sortOnArtist(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->artistId < b->artistId;
}
bool uniqueOnArtist(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->artistId == b->artistId;
}
bool sortOnComposer(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->composerId < b->composerId;
}
bool uniqueOnComposer(const MetaDataInfo* a, const MetaDataInfo* b) {
    return a->composerId == b->composerId;
}

namespace kestrow {

SongSaver::SongSaver(const char* name_) : ServerDB<Block<MetaDataInfo*>, Block<void>>(name_) {}

void SongSaver::saveSongs(const std::vector<MetaDataInfo*>& songs) {
    ostream.query(kInsertSong);
    for (MetaDataInfo* s : songs) {
        if (!s)
            continue;
        // A row that failed (bind or step) left the statement discarded or its
        // parameter count advanced: prepare again, so every row binds from 1.
        if (!ostream.good())
            ostream.query(kInsertSong);
        ostream << s->partitionId << s->path << s->objectId << s->directoryId << s->name << s->title
                << s->artistId << s->albumId << s->genreId << s->composerId << s->audioType
                << s->bookmark << s->lastModified << s->trackNumber << s->discNumber
                << s->asianTitle << sqlstl::step;
    }
    ostream.finalize();
}

void SongSaver::saveLookup(std::vector<MetaDataInfo*> songs,
                           bool (*sort)(const MetaDataInfo*, const MetaDataInfo*),
                           bool (*unique)(const MetaDataInfo*, const MetaDataInfo*),
                           const char* sql, const std::string MetaDataInfo::*id,
                           const std::string MetaDataInfo::*name,
                           const std::string MetaDataInfo::*asian) {
    songs.erase(std::remove(songs.begin(), songs.end(), nullptr), songs.end());
    std::sort(songs.begin(), songs.end(), sort);
    songs.erase(std::unique(songs.begin(), songs.end(), unique), songs.end());
    ostream.query(sql);
    for (MetaDataInfo* s : songs) {
        if (!ostream.good())
            ostream.query(sql);
        ostream << s->*id << s->*name << s->*asian << sqlstl::step;
    }
    ostream.finalize();
}

boost::shared_ptr<Block<void>> SongSaver::doOperation(boost::shared_ptr<Block<MetaDataInfo*>> in) {
    const Operation& op = in->operation;
    ZQLOG_INFO("SongSaver for: %u (op: %d)", unsigned(in->items.size()), op.id);
    if (!ostream.db)
        open(op.deviceId);
    ZQLOG_INFO("SongSaver (op: %d)", op.id);
    Timer timer;

    ostream.exec("BEGIN TRANSACTION;");
    saveSongs(in->items);
    saveLookup(in->items, sortOnGenre, uniqueOnGenre, kReplaceGenre, &MetaDataInfo::genreId,
               &MetaDataInfo::genre, &MetaDataInfo::asianGenre);
    saveLookup(in->items, sortOnAlbum, uniqueOnAlbum, kReplaceAlbum, &MetaDataInfo::albumId,
               &MetaDataInfo::album, &MetaDataInfo::asianAlbum);
    saveLookup(in->items, sortOnArtist, uniqueOnArtist, kReplaceArtist, &MetaDataInfo::artistId,
               &MetaDataInfo::artist, &MetaDataInfo::asianArtist);
    saveLookup(in->items, sortOnComposer, uniqueOnComposer, kReplaceComposer,
               &MetaDataInfo::composerId, &MetaDataInfo::composer, &MetaDataInfo::asianComposer);
    ostream.exec("END TRANSACTION;");
    ZQLOG_INFO("SongSaver timer: %ld (op: %d)", timer.stop(), op.id);

    if (op.lastBlock) {
        ZQLOG_INFO("Clear");
        ostream.exec(kCleanUp.c_str());
        ZQLOG_INFO("SongSaver close db");
        ostream.close();
        istream.close();
    }

    // Only the block that completes the operation goes on to the pipeline,
    // which finishes the operation on it; the others end here.
    if (!op.lastBlock)
        return boost::shared_ptr<Block<void>>();
    boost::shared_ptr<Block<void>> out(new Block<void>());
    out->operation = op;
    // Kept until the next operation opens the connection: the last block
    // tells of a failure in any block.
    if (storageFailed())
        out->operation.writeFailed = true;
    return out;
}

}  // namespace kestrow
