#include "tools/base/ErrorText.h"

#include <system_error>

std::string ErrorText(int error) {
    return std::generic_category().message(error);
}
