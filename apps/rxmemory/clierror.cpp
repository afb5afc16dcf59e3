#include "clierror.h"

#include <utility>

namespace rxcli {

CliError::CliError(Status status, const std::string& message, std::string hint)
    : std::runtime_error(message), status_(status), hint_(std::move(hint)) {}

}  // namespace rxcli
