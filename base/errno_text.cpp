#include "base/errno_text.h"

#include <system_error>

namespace qxpbase {

std::string ErrnoText(int error) {
    return std::generic_category().message(error);
}

}  // namespace qxpbase
