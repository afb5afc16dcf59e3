// How an object's catalogue (mz::MetaObject) travels: as one RXValue array
//   [description, [method...], [signal...]]
//   method = [uid, name, className, description, mask, [parameter...],
//             hasReturn, returnName, returnDescription, returnType]
//   parameter = [name, description, type]      signal = [uid, name, signature]
// with the types as the integer codes of mz::ParamType. Reentrant.
#pragma once

#include "mz/object.h"
#include "rx/rxvalue.h"

namespace net {

[[nodiscard]] RX::RXValue encodeMetaObject(const mz::MetaObject& meta);
// Throws std::runtime_error "malformed meta object: ..." on any other shape.
[[nodiscard]] mz::MetaObject decodeMetaObject(const RX::RXValue& value);

}  // namespace net
