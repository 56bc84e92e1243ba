#include "playlist/MSDPlaylistMiner.h"

#include <glib.h>
#include <totem-pl-parser.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>

#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

// Length of "file:///", the prefix that every entry is taken to start with.
const size_t kUriPrefixLength = 8;

// Sources a parse may leave in its private context are run at most this
// often, so that a repeating one cannot keep the stage here.
const int kMaxPendingDispatches = 1000;

// "entry-parsed": one track of the playlist being parsed.
void onEntryParsed(TotemPlParser* /*parser*/, const char* uri, GHashTable* /*metadata*/,
                   PlaylistWrapper* wrapper) {
    try {
        gchar* unescaped = uri ? g_uri_unescape_string(uri, nullptr) : nullptr;
        if (!unescaped) {
            ZQLOG_WARN("cannot unescape entry %.256s", uri ? uri : "");
            return;
        }
        std::string text(unescaped);
        g_free(unescaped);
        std::replace(text.begin(), text.end(), '\\', '/');
        if (text.size() <= kUriPrefixLength) {
            ZQLOG_WARN("entry too short: %s", text.c_str());
            return;
        }
        std::unique_ptr<PlaylistEntry> entry(new PlaylistEntry(text.substr(kUriPrefixLength), 0));
        wrapper->playlist->entries.push_back(entry.get());
        entry.release();
    } catch (const std::exception& e) {
        // Nothing may leave a GLib signal handler by an exception.
        ZQLOG_ERROR("entry dropped: %s", e.what());
    }
}

}  // namespace

void extractPlaylist(PlaylistWrapper* wrapper) {
    const std::string& path = wrapper->playlist->path;

    // The parser belongs to a context of this thread alone: whatever it
    // dispatches runs here, never through the host's default context.
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);

    TotemPlParser* parser = totem_pl_parser_new();
    g_object_set(parser, "recurse", FALSE, "disable-unsafe", TRUE, nullptr);
    g_signal_connect_data(parser, "entry-parsed", G_CALLBACK(onEntryParsed), wrapper, nullptr,
                          GConnectFlags(0));

    std::string uri = "file:///" + path;
    TotemPlParserResult result = totem_pl_parser_parse(parser, uri.c_str(), FALSE);
    switch (result) {
        case TOTEM_PL_PARSER_RESULT_UNHANDLED:
            ZQLOG_INFO("TOTEM_PL_PARSER_RESULT_UNHANDLED %s", path.c_str());
            break;
        case TOTEM_PL_PARSER_RESULT_ERROR:
            ZQLOG_INFO("TOTEM_PL_PARSER_RESULT_ERROR %s", path.c_str());
            break;
        case TOTEM_PL_PARSER_RESULT_SUCCESS:
            ZQLOG_INFO("TOTEM_PL_PARSER_RESULT_SUCCESS %s", path.c_str());
            break;
        case TOTEM_PL_PARSER_RESULT_IGNORED:
            ZQLOG_INFO("TOTEM_PL_PARSER_RESULT_IGNORED %s", path.c_str());
            break;
        default:
            ZQLOG_INFO("default %s", path.c_str());
            break;
    }

    for (int i = 0; i < kMaxPendingDispatches && g_main_context_iteration(context, FALSE); ++i) {
    }
    g_object_unref(parser);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);

    pthread_mutex_lock(&wrapper->mutex);
    pthread_cond_broadcast(&wrapper->cond);
    pthread_mutex_unlock(&wrapper->mutex);
}

MSDPlaylistMiner::MSDPlaylistMiner(const char* name_)
    : Server<Block<FileInfo*>, Block<Playlist*>>(name_) {}

boost::shared_ptr<Block<Playlist*>> MSDPlaylistMiner::doOperation(
    boost::shared_ptr<Block<FileInfo*>> input) {
    ZQLOG_INFO("MSDPlaylistMiner for: %u (op: %d)", unsigned(input->items.size()),
               input->operation.id);
    boost::shared_ptr<Block<Playlist*>> output(new Block<Playlist*>());
    output->operation = input->operation;
    PlaylistWrapper wrapper;

    for (FileInfo* file : input->items) {
        if (!file || !file->path)
            continue;
        // Appended first, so that a file that yields nothing is passed on too.
        Playlist* playlist =
            new Playlist(*file->path, input->operation.mountPoint, file->lastModified);
        output->items.push_back(playlist);
        wrapper.playlist = playlist;
        // The parse has finished when this returns: there is nothing to wait for.
        extractPlaylist(&wrapper);
    }

    ZQLOG_INFO("MSDPlaylistMiner done (op: %d)", input->operation.id);
    return output;
}

}  // namespace kestrow
