#pragma once

#include <string>

#include "db/DatabaseOpen.h"
#include "framework/Server.h"
#include "sql/SqlStream.h"

namespace kestrow {

// A stage with a writing and a reading connection to its device's database.
// Both are used by the stage's own thread only and closed by the destructor.
template <class TIN, class TOUT>
class ServerDB : public Server<TIN, TOUT> {
public:
    static const int kBusyTimeoutMs = 3600000;

    explicit ServerDB(const char* name_, BaseServer<TOUT>* next_ = nullptr)
        : Server<TIN, TOUT>(name_, next_) {}

    // Opens `ostream`, then `istream`, on the device's database. Throws
    // std::runtime_error("cannot open db") when a connection cannot be made.
    virtual bool open(const std::string& devId) {
        DatabaseMgr::instance().open(devId, ostream, kBusyTimeoutMs);
        return DatabaseMgr::instance().open(devId, istream, kBusyTimeoutMs);
    }

    // Whether either connection failed to store or read the database since
    // it was opened (see basic_sqlstream::storageError).
    bool storageFailed() const { return ostream.storageError || istream.storageError; }

    sqlstl::basic_sqlostream<char> ostream;
    sqlstl::basic_sqlistream<char> istream;
};

}  // namespace kestrow
