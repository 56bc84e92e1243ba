#pragma once

#include <string>

namespace kestrow {

// The LIKE pattern that selects every path below `mountPoint`: the mount
// point followed by '%', between double quotes, with each double quote of the
// mount point written twice so that it stays inside the string. '%' and '_'
// in the mount point are not escaped, and there is no trailing '/', so
// "/media/usb1" also selects "/media/usb10/...".
std::string mountPointPattern(const std::string& mountPoint);

}  // namespace kestrow
