#include "tools/DatabaseSummary.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include "platform/common/DatabaseMgr.h"
#include "platform/common/MountPointScope.h"

namespace olvane {
namespace tool {

namespace {

class ReadOnlyDb {
public:
    explicit ReadOnlyDb(const std::string& file) {
        if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            sqlite3_close(db_);
            db_ = nullptr;
        } else {
            sqlite3_busy_timeout(db_, 2000);
        }
    }
    ~ReadOnlyDb() { sqlite3_close(db_); }
    bool ok() const { return db_ != nullptr; }

    // First column of the first row as a number; -1 on failure.
    long long count(const char* sql, const std::string& bound = std::string()) {
        sqlite3_stmt* stmt = nullptr;
        long long n = -1;
        if (sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr) != SQLITE_OK)
            return n;
        if (!bound.empty())
            sqlite3_bind_text(stmt, 1, bound.c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(stmt) == SQLITE_ROW)
            n = sqlite3_column_int64(stmt, 0);
        sqlite3_finalize(stmt);
        return n;
    }

private:
    sqlite3* db_ = nullptr;
};

}  // namespace

bool DatabaseSummary::load(const std::string& deviceId, DatabaseSummary& out, std::string& error) {
    out.deviceId = deviceId;
    out.file = DatabaseMgr::instance().getDbNameFromDevId(deviceId);
    struct stat st;
    if (::stat(out.file.c_str(), &st) != 0) {
        error = "no database for device " + deviceId + " (" + out.file + ")";
        return false;
    }
    ReadOnlyDb db(out.file);
    if (!db.ok()) {
        error = "cannot read " + out.file;
        return false;
    }
    out.songs = db.count("SELECT COUNT(*) FROM SONGS;");
    out.artists = db.count("SELECT COUNT(*) FROM ARTISTS;");
    out.albums = db.count("SELECT COUNT(*) FROM ALBUMS;");
    out.genres = db.count("SELECT COUNT(*) FROM GENRES;");
    out.composers = db.count("SELECT COUNT(*) FROM COMPOSERS;");
    out.playlists = db.count("SELECT COUNT(DISTINCT PLAYID) FROM PLAYLISTS;");
    out.directories = db.count("SELECT COUNT(*) FROM DIRECTORIES;");
    if (out.songs < 0) {
        error = out.file + " is not an index database";
        return false;
    }
    out.statuses = DatabaseMgr::instance().getStatuses(deviceId);
    return true;
}

long long DatabaseSummary::songsUnder(const std::string& deviceId, const std::string& mountPoint) {
    ReadOnlyDb db(DatabaseMgr::instance().getDbNameFromDevId(deviceId));
    if (!db.ok())
        return -1;
    // An MTP device's songs are all in its own database, by the phone's paths.
    if (mountPoint.rfind("mtp-folder://", 0) == 0)
        return db.count("SELECT COUNT(*) FROM SONGS;");
    const std::string sql =
        "SELECT COUNT(*) FROM SONGS WHERE " + MountPointScope::sqlCondition("PATH") + ";";
    return db.count(sql.c_str(), mountPoint);
}

std::string DatabaseSummary::plain() const {
    std::string out = "device " + deviceId + "\ndatabase " + file + "\n";
    out += "songs " + std::to_string(songs) + "\n";
    out += "artists " + std::to_string(artists) + "\n";
    out += "albums " + std::to_string(albums) + "\n";
    out += "genres " + std::to_string(genres) + "\n";
    out += "composers " + std::to_string(composers) + "\n";
    out += "playlists " + std::to_string(playlists) + "\n";
    out += "directories " + std::to_string(directories) + "\n";
    for (const auto& s : statuses)
        out += "status " + s.first + " " + s.second + "\n";
    return out;
}

std::string DatabaseSummary::json() const {
    QJsonObject status;
    for (const auto& s : statuses)
        status.insert(QString::fromStdString(s.first), QString::fromStdString(s.second));
    const QJsonObject o{{"deviceId", QString::fromStdString(deviceId)},
                        {"database", QFile::decodeName(file.c_str())},
                        {"songs", songs},
                        {"artists", artists},
                        {"albums", albums},
                        {"genres", genres},
                        {"composers", composers},
                        {"playlists", playlists},
                        {"directories", directories},
                        {"status", status}};
    return QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString();
}

}  // namespace tool
}  // namespace olvane
