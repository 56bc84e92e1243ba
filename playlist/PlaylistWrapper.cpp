#include "playlist/PlaylistWrapper.h"

namespace kestrow {

PlaylistWrapper::PlaylistWrapper() : playlist(nullptr) {
    pthread_mutex_init(&mutex, nullptr);
    pthread_cond_init(&cond, nullptr);
}

PlaylistWrapper::~PlaylistWrapper() {
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&cond);
}

}  // namespace kestrow
