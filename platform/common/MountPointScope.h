#pragma once
// Which paths, and so which rows of an index database, belong to a mount
// point. A path belongs to mount point M when it equals M or starts with M
// followed by '/', compared byte for byte: case-sensitive and with no
// wildcard, so "/media/usb1" holds neither "/media/usb10/a" nor
// "/media/USB1/a", and '%' or '_' in a volume label are plain characters.
// Every statement that selects or deletes a partition's rows by path builds
// its condition here. Stateless; callable from any thread; throws nothing
// but std::bad_alloc.

#include <string>

class MountPointScope {
public:
    // An SQL condition, in parentheses, true for the rows whose `column`
    // belongs to `mountPoint`. `mountPoint` is an SQL expression: a parameter
    // such as "?1", which the caller binds to the mount point's text, or a
    // column of another table of the statement. It is the range of paths
    // from M (its own row, such as the root of DIRECTORIES) up to M + "0"
    // ('0' follows '/'), less those that go on with a byte before '/', so
    // SQLite serves it from one range of an index on `column`, in path order.
    // A NULL path belongs to no mount point.
    static std::string sqlCondition(const std::string& column,
                                    const std::string& mountPoint = "?1");

    // The same rule for a path in hand: true when `path` is `folder` or lies
    // below it.
    static bool contains(const std::string& folder, const std::string& path);
};
