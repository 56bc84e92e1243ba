#include "platform/portolan/Backend.h"

namespace portolan {

Backend::~Backend() = default;

}  // namespace portolan
