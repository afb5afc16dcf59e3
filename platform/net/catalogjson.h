// The published catalogue of a module as JSON, as the status pages serve it
// and the command-line client prints it: one object per method with its name,
// class name, description, mask, signature, parameters (name, description,
// type) and return (name, description, type, or null when none is described).
// Pure functions; thread-safe.
#pragma once

#include <nlohmann/json.hpp>

#include "mz/object.h"

namespace net {

nlohmann::json methodToJson(const mz::MetaMethod& method);

}  // namespace net
