#pragma once

#include <pthread.h>

namespace kestrow {

struct Playlist;

// What the parse of one playlist file works on: the playlist being filled
// and the lock and condition through which the parse reports that it is
// done. The parse runs on the thread that calls extractPlaylist, so nobody
// has to wait on `cond`; it is broadcast under `mutex` all the same.
struct PlaylistWrapper {
    PlaylistWrapper();
    PlaylistWrapper(const PlaylistWrapper&) = delete;
    PlaylistWrapper& operator=(const PlaylistWrapper&) = delete;
    ~PlaylistWrapper();

    pthread_mutex_t mutex;
    pthread_cond_t cond;
    Playlist* playlist;  // not owned
};

}  // namespace kestrow
