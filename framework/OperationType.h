#pragma once

namespace kestrow {

// Kind of indexing request. The scheduler treats every value other than
// MSD_OPERATION as MTP.
enum OperationType { MSD_OPERATION = 0, MTP_OPERATION = 1 };

}  // namespace kestrow
