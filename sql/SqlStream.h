#pragma once
// SQL statements in the shape of streams. The stream's state flags are the
// statement's error state: badbit, the statement failed and was discarded;
// failbit, a value could not be bound; eofbit (reading), no further row.
// Nothing here throws. A stream is used by one thread at a time.

#include <sqlite3.h>

#include <cstring>
#include <ios>
#include <iterator>
#include <streambuf>
#include <string>

#include "platform/log/ZQLog.h"

namespace sqlstl {

// One connection (`db`, owned, closed by the destructor) and one prepared
// statement (`stmt`, owned).
template <class CharT, class Traits = std::char_traits<CharT>>
class basic_sqlstream : public std::basic_ios<CharT, Traits> {
public:
    // Carries no text; it makes the object a complete stream.
    class sqlstreambuf : public std::basic_streambuf<CharT, Traits> {};

    basic_sqlstream() : db(nullptr), index(0), stmt(nullptr), storageError(0) { this->init(&buf); }
    basic_sqlstream(const basic_sqlstream&) = delete;
    basic_sqlstream& operator=(const basic_sqlstream&) = delete;

    virtual ~basic_sqlstream() {
        finalize();
        if (db)
            sqlite3_close(db);
    }

    // Finalizes the statement and closes the connection; a failure is logged
    // and leaves the connection for the destructor.
    void close() {
        finalize();
        if (!db)
            return;
        int rc = sqlite3_close(db);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("Could not close db connection: %d %s", rc, sqlite3_errmsg(db));
            return;
        }
        db = nullptr;
    }

    // Runs `sql` (statements that return no rows, such as "BEGIN
    // TRANSACTION;") on the connection, apart from `stmt` and the flags. A
    // failure is logged as "exec failed: %d %s" with SQLite's message.
    bool exec(const char* sql) {
        char* error = nullptr;
        int rc = sqlite3_exec(db, sql, nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("exec failed: %d %s", rc, error ? error : sqlite3_errmsg(db));
            noteFailure(rc);
        }
        sqlite3_free(error);
        return rc == SQLITE_OK;
    }

    void finalize() {
        if (stmt)
            sqlite3_finalize(stmt);
        stmt = nullptr;
    }

    sqlstreambuf buf;
    sqlite3* db;
    int index;  // writing: next parameter (from 1); reading: next column (from 0)
    sqlite3_stmt* stmt;
    // The first failure since the connection was opened that left the file
    // unwritten or unread (full, read-only, I/O error, damaged); 0 for none.
    // Kept across statements, so a stage can tell whether its work is stored.
    int storageError;

    // Whether `rc` says the storage failed, rather than the statement.
    static bool isStorageFailure(int rc) {
        switch (rc & 0xff) {
            case SQLITE_PERM:
            case SQLITE_READONLY:
            case SQLITE_IOERR:
            case SQLITE_CORRUPT:
            case SQLITE_FULL:
            case SQLITE_CANTOPEN:
            case SQLITE_NOTADB:
                return true;
            default:
                return false;
        }
    }

protected:
    void noteFailure(int rc) {
        if (!storageError && isStorageFailure(rc))
            storageError = rc;
    }

    // Replaces the statement; clears every flag first.
    bool prepare(const char* sql) {
        this->clear();
        finalize();
        int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
        if (rc != SQLITE_OK) {
            ZQLOG_ERROR("exec failed: %d %s", rc, sqlite3_errmsg(db));
            noteFailure(rc);
            finalize();
            this->setstate(std::ios_base::badbit);
            return false;
        }
        return true;
    }

    // Records a failed step: logs, sets badbit and discards the statement.
    void failStatement(int rc) {
        ZQLOG_ERROR("exec failed: %d %s", rc, sqlite3_errmsg(db));
        noteFailure(rc);
        this->setstate(std::ios_base::badbit);
        finalize();
    }
};

// Binds parameters with << and runs statements that return no rows.
// Texts are bound without a copy: they must live until the statement is stepped.
template <class CharT, class Traits = std::char_traits<CharT>>
class basic_sqlostream : public basic_sqlstream<CharT, Traits> {
public:
    basic_sqlostream& query(const char* sql) {
        if (this->prepare(sql))
            this->index = 1;
        return *this;
    }
    basic_sqlostream& query(const std::string& sql) { return query(sql.c_str()); }

    basic_sqlostream& operator<<(const char* text) {
        if (this->good()) {
            if (sqlite3_bind_text(this->stmt, this->index, text, text ? int(std::strlen(text)) : 0,
                                  SQLITE_STATIC) != SQLITE_OK)
                this->setstate(std::ios_base::failbit);
            ++this->index;
        }
        return *this;
    }
    basic_sqlostream& operator<<(const std::string& text) { return *this << text.c_str(); }
    basic_sqlostream& operator<<(int value) {
        if (this->good()) {
            if (sqlite3_bind_int(this->stmt, this->index, value) != SQLITE_OK)
                this->setstate(std::ios_base::failbit);
            ++this->index;
        }
        return *this;
    }
    basic_sqlostream& operator<<(bool value) { return *this << int(value); }
    basic_sqlostream& operator<<(long long value) {
        if (this->good()) {
            if (sqlite3_bind_int64(this->stmt, this->index, sqlite3_int64(value)) != SQLITE_OK)
                this->setstate(std::ios_base::failbit);
            ++this->index;
        }
        return *this;
    }
    basic_sqlostream& operator<<(long value) { return *this << static_cast<long long>(value); }

    basic_sqlostream& operator<<(basic_sqlostream& (*manipulator)(basic_sqlostream&)) {
        return manipulator(*this);
    }

    // The body of the `step` manipulator.
    void stepStatement() {
        if (this->rdstate() & (std::ios_base::badbit | std::ios_base::failbit)) {
            ZQLOG_ERROR("step failed");
            return;
        }
        int rc = sqlite3_step(this->stmt);
        if (rc == SQLITE_DONE) {
            sqlite3_reset(this->stmt);
        } else if (rc == SQLITE_ROW || (rc >= 1 && rc <= 26)) {
            this->failStatement(rc);
        }
        this->index = 1;
    }
};

// `stream << sqlstl::step` runs the bound statement and makes it ready to be
// bound again from parameter 1. A returned row counts as a failure.
template <class CharT, class Traits>
basic_sqlostream<CharT, Traits>& step(basic_sqlostream<CharT, Traits>& stream) {
    stream.stepStatement();
    return stream;
}

// Runs queries and reads the current row's columns with >>, in select order.
template <class CharT, class Traits = std::char_traits<CharT>>
class basic_sqlistream : public basic_sqlstream<CharT, Traits> {
public:
    basic_sqlistream& query(const char* sql) {
        if (this->prepare(sql))
            this->index = 0;
        return *this;
    }
    basic_sqlistream& query(const std::string& sql) { return query(sql.c_str()); }

    // Binds a copy of `text` to parameter `parameter` (from 1) of the query,
    // before its first step. A failure sets failbit, so the query reads no
    // row; nothing is bound unless the stream is good.
    basic_sqlistream& bind(int parameter, const std::string& text) {
        if (this->good() && sqlite3_bind_text(this->stmt, parameter, text.data(), int(text.size()),
                                              SQLITE_TRANSIENT) != SQLITE_OK)
            this->setstate(std::ios_base::failbit);
        return *this;
    }

    // Moves to the next row: eofbit when there is none, badbit on failure.
    // At end of file it does nothing: the query is not started again.
    basic_sqlistream& step() {
        if (this->rdstate() & (std::ios_base::badbit | std::ios_base::failbit)) {
            ZQLOG_ERROR("step failed");
            return *this;
        }
        if (this->eof())
            return *this;
        int rc = sqlite3_step(this->stmt);
        if (rc == SQLITE_DONE) {
            this->setstate(std::ios_base::eofbit);
        } else if (rc >= 1 && rc <= 26) {
            this->failStatement(rc);
        }
        this->index = 0;
        return *this;
    }

    // Reading is done only while a row is ready (a statement, not at end of
    // file); otherwise the target keeps its value.
    basic_sqlistream& operator>>(int& value) {
        if (hasRow())
            value = sqlite3_column_int(this->stmt, this->index);
        ++this->index;
        return *this;
    }
    basic_sqlistream& operator>>(long long& value) {
        if (hasRow())
            value = sqlite3_column_int64(this->stmt, this->index);
        ++this->index;
        return *this;
    }
    basic_sqlistream& operator>>(double& value) {
        if (hasRow())
            value = sqlite3_column_double(this->stmt, this->index);
        ++this->index;
        return *this;
    }
    // A NULL column leaves the string as it was, and the stream good: a
    // reading loop goes on with the next row instead of stopping there.
    basic_sqlistream& operator>>(std::string& value) {
        const unsigned char* text =
            hasRow() ? sqlite3_column_text(this->stmt, this->index) : nullptr;
        if (text)
            value.assign(reinterpret_cast<const char*>(text),
                         size_t(sqlite3_column_bytes(this->stmt, this->index)));
        ++this->index;
        return *this;
    }

private:
    bool hasRow() const { return this->stmt && !this->eof(); }
};

// Output iterator: assigning a T writes `stream << value` and then steps.
template <class T, class CharT = char, class Traits = std::char_traits<CharT>>
class sqlostream_iterator {
public:
    using iterator_category = std::output_iterator_tag;
    using value_type = void;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = void;

    explicit sqlostream_iterator(basic_sqlostream<CharT, Traits>& s) : stream(&s) {}
    sqlostream_iterator& operator=(const T& value) {
        *stream << value;
        *stream << step<CharT, Traits>;
        return *this;
    }
    sqlostream_iterator& operator*() { return *this; }
    sqlostream_iterator& operator++() { return *this; }
    sqlostream_iterator& operator++(int) { return *this; }

private:
    basic_sqlostream<CharT, Traits>* stream;
};

typedef basic_sqlostream<char> sqlostream;
typedef basic_sqlistream<char> sqlistream;

}  // namespace sqlstl
