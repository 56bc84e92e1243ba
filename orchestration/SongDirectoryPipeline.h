#pragma once

#include <string>
#include <vector>

#include "framework/Block.h"
#include "framework/KestrowOperation.h"
#include "framework/OperationType.h"
#include "framework/Pipeline.h"

namespace kestrow {

struct Directory;
class Kestrow;

// One indexing request of the scheduler: prepares the device's database,
// seeds the crawler with the request's root, waits for the completion
// blocks of its three chains and then finishes the operation. An operation
// whose rows could not all be written (a full or read-only disk) ends
// without indexingFinished, its status left "PROGRESS" where it can be.
// enqueueNewOperation runs on the caller's thread under the scheduler's lock;
// doOperation runs on the pipeline's own thread and never takes that lock.
class SongDirectoryPipeline : public Pipeline<Block<void>, Block<void>> {
public:
    // Completion blocks expected per operation: directory, song and playlist savers.
    static const int kTerminalStages = 3;

    SongDirectoryPipeline(const char* name, Kestrow* owner, OperationType type);

    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<Block<void>> block) override;
    // Creates the database, announces a complete one, seeds the crawler. May throw.
    virtual void enqueueNewOperation(KestrowOperation& operation, bool isFirstPartition);
    virtual BaseServer<Block<Directory*>>* crawler() = 0;

    void enqueueOperation(KestrowOperation& operation);

    const KestrowOperation& getCurrentOperation() const { return currentOperation; }

protected:
    // Links the three chains that start at `crawler`: songs (finder,
    // normalizer, miner, saver), playlists (finder, miner, saver) and
    // directories (saver), ends each at this pipeline, and takes the nine
    // stages as children in the order they are started and stopped.
    template <class Crawler, class Finder, class Normalizer, class Miner, class Saver,
              class PlaylistMiner, class PlaylistSaver, class DirectorySaver>
    void assemble(Crawler* crawler, Finder* songFinder, Normalizer* normalizer, Miner* miner,
                  Saver* songSaver, Finder* playlistFinder, PlaylistMiner* playlistMiner,
                  PlaylistSaver* playlistSaver, DirectorySaver* directorySaver) {
        crawler->next = songFinder;
        crawler->setPlaylistSink(playlistFinder);
        crawler->setDirectorySink(directorySaver);
        songFinder->next = normalizer;
        normalizer->next = miner;
        miner->next = songSaver;
        playlistFinder->next = playlistMiner;
        playlistMiner->next = playlistSaver;
        songSaver->next = playlistSaver->next = directorySaver->next = this;
        children = {songFinder,    normalizer,    miner,   songSaver,     playlistFinder,
                    playlistMiner, playlistSaver, crawler, directorySaver};
    }

    // Deletes the playlist entries whose song is not in the database.
    void clearPlaylists();
    // Gives the rows of the playlists written by the operation a time that no
    // file has, so that the next indexing reads those playlists again.
    void markPlaylistsUnread();

    KestrowOperation currentOperation;
    Kestrow* owner;
    OperationType type;
    bool writeFailed;  // a chain could not write its rows; pipeline's thread only
    std::vector<std::string> playlistsWritten;  // by the operation; pipeline's thread only
};

}  // namespace kestrow
