// floor: the least work any indexer of a music tree must do, to set the
// indexer's figures against.
//
//   floor io ROOT DB        walk (opendir/readdir/stat), read the first 64 KiB
//                           (or the whole ID3v2 tag when larger) and the last
//                           128 bytes of every audio file, one row per file
//                           into a fresh SQLite file in one transaction
//   floor parse ROOT        the walk, then TagLib's FileRef with its property
//                           map on every audio file, one thread, no database
//   floor rescan ROOT DB    the walk and one SELECT of all stored paths of an
//                           existing index database, one status row written,
//                           the database flushed to storage once
//
// Prints one JSON object: {"mode":…, "files":…, "ms":…}.
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Entry {
    std::string path;
    long long mtime;
    long long size;
};

bool isAudio(const char* name) {
    static const char* const kExtensions[] = {".mp3", ".m4a",  ".m4b", ".wma", ".aac",
                                              ".wav", ".flac", ".mp4", ".mpg", ".mpeg",
                                              ".asf", ".m4p",  ".m4r"};
    const char* dot = std::strrchr(name, '.');
    if (!dot)
        return false;
    for (const char* e : kExtensions)
        if (strcasecmp(dot, e) == 0)
            return true;
    return false;
}

// Breadth-first, one stat per entry, links not followed.
std::vector<Entry> walk(const std::string& root) {
    std::vector<Entry> files;
    std::vector<std::string> dirs{root};
    for (size_t i = 0; i < dirs.size(); ++i) {
        DIR* d = opendir(dirs[i].c_str());
        if (!d)
            continue;
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.')
                continue;
            std::string path = dirs[i] + "/" + e->d_name;
            struct stat st;
            if (lstat(path.c_str(), &st) != 0)
                continue;
            if (S_ISDIR(st.st_mode))
                dirs.push_back(path);
            else if (S_ISREG(st.st_mode) && isAudio(e->d_name))
                files.push_back({path, (long long)st.st_mtime, (long long)st.st_size});
        }
        closedir(d);
    }
    return files;
}

// The bytes a tag reader cannot avoid: the head (the whole ID3v2 tag when it
// is larger than 64 KiB) and the last 128 bytes.
void readEnds(const Entry& f, std::vector<char>& buffer) {
    int fd = open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    size_t head = 64 * 1024;
    buffer.resize(head);
    ssize_t got = pread(fd, buffer.data(), head, 0);
    if (got >= 10 && std::memcmp(buffer.data(), "ID3", 3) == 0) {
        const unsigned char* s = reinterpret_cast<const unsigned char*>(buffer.data()) + 6;
        size_t tag = 10 + ((s[0] << 21) | (s[1] << 14) | (s[2] << 7) | s[3]);
        if (tag > head) {
            buffer.resize(tag);
            if (pread(fd, buffer.data() + head, tag - head, off_t(head)) < 0)
                std::perror(f.path.c_str());
        }
    }
    if (f.size > 128 && pread(fd, buffer.data(), 128, off_t(f.size - 128)) < 0)
        std::perror(f.path.c_str());
    close(fd);
}

bool exec(sqlite3* db, const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) != SQLITE_OK) {
        std::fprintf(stderr, "floor: %s: %s\n", sql, err ? err : "");
        sqlite3_free(err);
        return false;
    }
    return true;
}

int io(const std::string& root, const std::string& dbPath, size_t& files) {
    std::vector<Entry> entries = walk(root);
    files = entries.size();
    std::vector<char> buffer;
    for (const Entry& e : entries)
        readEnds(e, buffer);
    unlink(dbPath.c_str());
    sqlite3* db = nullptr;
    if (sqlite3_open(dbPath.c_str(), &db) != SQLITE_OK)
        return 1;
    bool ok = exec(db, "PRAGMA journal_mode=WAL;") &&
              exec(db, "CREATE TABLE F (PATH TEXT, LASTMODIFIED INTEGER, SIZE INTEGER);") &&
              exec(db, "BEGIN;");
    sqlite3_stmt* stmt = nullptr;
    ok = ok &&
         sqlite3_prepare_v2(db, "INSERT INTO F VALUES (?, ?, ?);", -1, &stmt, nullptr) == SQLITE_OK;
    for (size_t i = 0; ok && i < entries.size(); ++i) {
        sqlite3_bind_text(stmt, 1, entries[i].path.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(stmt, 2, entries[i].mtime);
        sqlite3_bind_int64(stmt, 3, entries[i].size);
        ok = sqlite3_step(stmt) == SQLITE_DONE;
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    ok = ok && exec(db, "COMMIT;");
    sqlite3_close(db);
    return ok ? 0 : 1;
}

int parse(const std::string& root, size_t& files) {
    std::vector<Entry> entries = walk(root);
    files = entries.size();
    size_t withTags = 0;
    for (const Entry& e : entries) {
        // The read style the indexer uses: tags only, no audio properties.
        TagLib::FileRef ref(e.path.c_str(), false);
        if (!ref.isNull() && ref.tag()) {
            TagLib::PropertyMap map = ref.file()->properties();
            withTags += map.isEmpty() ? 0 : 1;
        }
    }
    return withTags == 0 && files > 0 ? 1 : 0;
}

int rescan(const std::string& root, const std::string& dbPath, size_t& files) {
    std::vector<Entry> entries = walk(root);
    files = entries.size();
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "floor: cannot open %s\n", dbPath.c_str());
        return 1;
    }
    sqlite3_stmt* stmt = nullptr;
    size_t rows = 0;
    if (sqlite3_prepare_v2(db, "SELECT PATH FROM SONGS;", -1, &stmt, nullptr) == SQLITE_OK) {
        while (sqlite3_step(stmt) == SQLITE_ROW)
            rows += sqlite3_column_bytes(stmt, 0) > 0;
    }
    sqlite3_finalize(stmt);
    bool ok = exec(db,
                   "CREATE TABLE IF NOT EXISTS FLOOR_STATUS (K TEXT PRIMARY KEY, V TEXT);"
                   "REPLACE INTO FLOOR_STATUS VALUES ('status', 'OK');") &&
              exec(db, "PRAGMA wal_checkpoint(TRUNCATE);");
    sqlite3_close(db);
    int fd = open(dbPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
    if (rows == 0)
        std::fprintf(stderr, "floor: %s holds no songs\n", dbPath.c_str());
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const bool needsDb = mode == "io" || mode == "rescan";
    if ((mode != "parse" && !needsDb) || argc != (needsDb ? 4 : 3)) {
        std::fprintf(stderr, "usage: floor io ROOT DB | floor parse ROOT | floor rescan ROOT DB\n");
        return 2;
    }
    auto start = std::chrono::steady_clock::now();
    size_t files = 0;
    int rc = mode == "io"      ? io(argv[2], argv[3], files)
             : mode == "parse" ? parse(argv[2], files)
                               : rescan(argv[2], argv[3], files);
    double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::printf("{\"mode\":\"%s\",\"files\":%zu,\"ms\":%.1f}\n", mode.c_str(), files, ms);
    return rc;
}
