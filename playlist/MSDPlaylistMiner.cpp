#include "playlist/MSDPlaylistMiner.h"

#include <glib.h>
#include <totem-pl-parser.h>

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "msd/MountPointCheck.h"
#include "platform/log/ZQLog.h"
#include "playlist/FoldedFolders.h"
#include "playlist/ParserLogScope.h"
#include "playlist/PlaylistText.h"
#include "playlist/TrackPathResolver.h"

namespace kestrow {

namespace {

// Sources a parse may leave in its private context are run at most this
// often, so that a repeating one cannot keep the stage here.
const int kMaxPendingDispatches = 1000;

// The content type under which the parser reports an m3u playlist.
const char* const kM3uType = "audio/x-mpegurl";

// What the parser reports of one file: the entries as it resolved them, and
// the content type of the playlist, when it names one.
struct ParsedEntries {
    TotemPlParserResult result = TOTEM_PL_PARSER_RESULT_UNHANDLED;
    std::vector<std::string> uris;
    std::string contentType;
};

bool hasM3uName(const std::string& path) {
    const size_t dot = path.rfind('.');
    return dot != std::string::npos && (g_ascii_strcasecmp(path.c_str() + dot, ".m3u") == 0 ||
                                        g_ascii_strcasecmp(path.c_str() + dot, ".m3u8") == 0);
}

// "playlist-started": the file is a playlist of the given content type.
void onPlaylistStarted(TotemPlParser* /*parser*/, const char* /*uri*/, GHashTable* metadata,
                       ParsedEntries* parsed) {
    try {
        const char* type = metadata ? static_cast<const char*>(g_hash_table_lookup(
                                          metadata, TOTEM_PL_PARSER_FIELD_CONTENT_TYPE))
                                    : nullptr;
        if (type && parsed->contentType.empty())
            parsed->contentType = type;
    } catch (const std::exception& e) {
        // Nothing may leave a GLib signal handler by an exception.
        ZQLOG_ERROR("content type dropped: %s", e.what());
    }
}

// "entry-parsed": one track of the playlist being parsed.
void onEntryParsed(TotemPlParser* /*parser*/, const char* uri, GHashTable* /*metadata*/,
                   ParsedEntries* parsed) {
    try {
        if (uri)
            parsed->uris.push_back(uri);
    } catch (const std::exception& e) {
        ZQLOG_ERROR("entry dropped: %s", e.what());
    }
}

// A main context made the calling thread's default for its lifetime.
class ThreadContext {
public:
    ThreadContext() : context_(g_main_context_new()) {
        g_main_context_push_thread_default(context_);
    }
    ~ThreadContext() {
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
    }
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;
    GMainContext* get() const { return context_; }

private:
    GMainContext* context_;
};

struct ObjectDeleter {
    void operator()(TotemPlParser* parser) const { g_object_unref(parser); }
};

// Runs the parser over the file at `uri` (`path` for the log) on this thread.
ParsedEntries parse(const std::string& uri, const std::string& path) {
    ParsedEntries parsed;
    if (uri.empty()) {
        ZQLOG_WARN("no URI for playlist: %s", path.c_str());
        return parsed;
    }
    ParserLogScope messages;
    // The parser belongs to a context of this thread alone: whatever it
    // dispatches runs here, never through the host's default context.
    ThreadContext context;
    std::unique_ptr<TotemPlParser, ObjectDeleter> parser(totem_pl_parser_new());
    g_object_set(parser.get(), "recurse", FALSE, "disable-unsafe", TRUE, nullptr);
    g_signal_connect_data(parser.get(), "playlist-started", G_CALLBACK(onPlaylistStarted), &parsed,
                          nullptr, GConnectFlags(0));
    g_signal_connect_data(parser.get(), "entry-parsed", G_CALLBACK(onEntryParsed), &parsed, nullptr,
                          GConnectFlags(0));

    parsed.result = totem_pl_parser_parse(parser.get(), uri.c_str(), FALSE);
    switch (parsed.result) {
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
    for (int i = 0; i < kMaxPendingDispatches && g_main_context_iteration(context.get(), FALSE);
         ++i) {
    }
    return parsed;
}

template <class Text, class Resolve>
void addEntries(Playlist* playlist, const std::vector<Text>& texts, Resolve resolve) {
    for (const Text& text : texts) {
        std::optional<std::string> path = resolve(text);
        if (!path)
            continue;
        std::unique_ptr<PlaylistEntry> entry(new PlaylistEntry(*path, 0));
        playlist->entries.push_back(entry.get());
        entry.release();
    }
}

}  // namespace

void extractPlaylist(PlaylistWrapper* wrapper, const std::string& mountPoint,
                     FoldedFolders* folders) {
    std::optional<FoldedFolders> ownFolders;
    if (!folders)
        folders = &ownFolders.emplace(mountPoint);
    Playlist* playlist = wrapper->playlist;
    folders->learnLetterCase(playlist->path);
    const TrackPathResolver resolver(mountPoint, playlist->path);
    const PlaylistText text(playlist->path);
    // An entry names the file the device opens for it, spelled as listed; one
    // that names none keeps the path it was resolved to.
    auto onDevice = [folders](const std::optional<std::string>& path) {
        return path ? folders->find(*path) : std::nullopt;
    };
    auto fromText = [&resolver, &onDevice](const PlaylistText::Entry& entry) {
        std::optional<std::string> path = resolver.fromText(entry.text);
        if (std::optional<std::string> found = onDevice(path))
            return found;
        // A name that is not UTF-8 on the device is written with its own
        // bytes in a playlist made beside it: the bytes name the file.
        std::optional<std::string> written = entry.asWritten == entry.text
                                                 ? std::nullopt
                                                 : onDevice(resolver.fromText(entry.asWritten));
        return written ? written : path;
    };
    if (text.isPls()) {
        // A pls file is read by its lines alone: the parser spins forever on a
        // "File" key it cannot number ("File1 =", "File01", one key twice).
        ZQLOG_INFO("pls read by its lines: %s", playlist->path.c_str());
        addEntries(playlist, text.plsEntries(), fromText);
    } else {
        ParsedEntries parsed = parse(resolver.parserUri(), playlist->path);
        // An m3u file that the parser took is read by its lines: the parser
        // drops "\"-rooted and drive lines (and every relative one when the
        // first line is a URI), keeps a byte order mark in the first entry and
        // reads a legacy code page as Latin-1.
        if (parsed.result == TOTEM_PL_PARSER_RESULT_SUCCESS &&
            (parsed.contentType == kM3uType ||
             (parsed.contentType.empty() && hasM3uName(playlist->path)))) {
            addEntries(playlist, text.m3uEntries(), fromText);
        } else {
            addEntries(playlist, parsed.uris, [&resolver, &onDevice](const std::string& uri) {
                std::optional<std::string> path = resolver.fromParser(uri);
                std::optional<std::string> found = onDevice(path);
                return found ? found : path;
            });
        }
    }

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
    // Each folder that entries name is listed at most once in this pass.
    FoldedFolders folders(input->operation.mountPoint);

    for (FileInfo* file : input->items) {
        if (!file || !file->path)
            continue;
        if (MountPointCheck::lost(input->operation)) {
            output->operation.deviceGone = true;
            break;
        }
        // Appended first, so that a file that yields nothing is passed on too.
        Playlist* playlist =
            new Playlist(*file->path, input->operation.mountPoint, file->lastModified);
        output->items.push_back(playlist);
        wrapper.playlist = playlist;
        // The parse has finished when this returns: there is nothing to wait for.
        extractPlaylist(&wrapper, input->operation.mountPoint, &folders);
        // What was read while the device went away is not the playlist: left
        // out, it has no row, and is read again at the next indexing.
        if (MountPointCheck::lost(input->operation)) {
            delete output->items.back();
            output->items.pop_back();
            output->operation.deviceGone = true;
            break;
        }
    }

    ZQLOG_INFO("MSDPlaylistMiner done (op: %d)", input->operation.id);
    return output;
}

}  // namespace kestrow
