#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/ServerDB.h"
#include "platform/common/MetaDataInfo.h"

// Order and equality of songs by one lookup table's id, for de-duplicating
// the lookup rows of a block.
bool sortOnGenre(const MetaDataInfo* a, const MetaDataInfo* b);
bool uniqueOnGenre(const MetaDataInfo* a, const MetaDataInfo* b);
bool sortOnAlbum(const MetaDataInfo* a, const MetaDataInfo* b);
bool uniqueOnAlbum(const MetaDataInfo* a, const MetaDataInfo* b);
bool sortOnArtist(const MetaDataInfo* a, const MetaDataInfo* b);
bool uniqueOnArtist(const MetaDataInfo* a, const MetaDataInfo* b);
bool sortOnComposer(const MetaDataInfo* a, const MetaDataInfo* b);
bool uniqueOnComposer(const MetaDataInfo* a, const MetaDataInfo* b);

namespace kestrow {

// Writes songs and their genre, album, artist and composer rows, one
// transaction per block. The connection is opened at an operation's first
// block and closed after the clean-up of unused lookup rows at its last
// block, the only one passed on, as a Block<void>. Runs on its own thread;
// the connection is used by it alone.
class SongSaver : public ServerDB<Block<MetaDataInfo*>, Block<void>> {
public:
    explicit SongSaver(const char* name);

    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<Block<MetaDataInfo*>> in) override;

private:
    void saveSongs(const std::vector<MetaDataInfo*>& songs);
    void saveLookup(std::vector<MetaDataInfo*> songs,
                    bool (*sort)(const MetaDataInfo*, const MetaDataInfo*),
                    bool (*unique)(const MetaDataInfo*, const MetaDataInfo*), const char* sql,
                    const std::string MetaDataInfo::*id, const std::string MetaDataInfo::*name,
                    const std::string MetaDataInfo::*asian);
};

}  // namespace kestrow
