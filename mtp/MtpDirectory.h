#pragma once

#include <string>

#include "platform/common/Md5.h"
#include "sql/SqlStream.h"

namespace kestrow {

// One folder of an MTP device, as the MTP directory saver stores it. A plain
// value, owned by the block that carries it.
struct MtpDirectory {
    // `path` is the folder's device path; `partition` the text of the
    // partition id; `root` the parent of a folder directly under the root.
    MtpDirectory(const std::string& path, const std::string& partition, const std::string& root);

    std::string path;
    std::string name;        // after the last '/'; the whole path when it has none
    Md5 partitionId;         // kind 1 of the partition
    std::string parentPath;  // path before its last '/'; `root` when that is "/" or empty
    Md5 objectId;            // kind 1 of path
    Md5 parentId;            // kind 1 of parentPath
    bool topLevel;           // parentPath is `root`
};

// Binds PARTITION_ID, PATH, NAME, OBJECTID and PARENT_ID of `directory`, in
// that order, on the prepared statement of `stream` (for
// sqlstl::sqlostream_iterator<MtpDirectory*>). The texts are bound without a
// copy: `directory` must live until the statement is stepped.
sqlstl::basic_sqlostream<char>& operator<<(sqlstl::basic_sqlostream<char>& stream,
                                           const MtpDirectory* directory);

}  // namespace kestrow
