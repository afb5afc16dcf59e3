// JsonValue: how values are written on the rxmemory command line and printed
// back with --json. A value is JSON: 5 an int, 5.5 a float, "a b" a string,
// true, [1, "a"] an array, null the invalid value, {"$binary": "<base64>"} a
// binary; text that does not parse as JSON is taken as a string, so bare words
// need no quotes. Printing uses the same forms, plus {"$object": true} for an
// object reference, so what `get --json` prints can be given back to `insert`.
// Stateless; every function may be called from any thread.
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "rx/rxvalue.h"

namespace rxcli {

class JsonValue {
 public:
  // What a JSON object other than {"$binary": ...} means.
  enum class Objects {
    Refuse,       // an error: values have no maps
    AsStringMap,  // {"a": "b"} is the map from string to string [["a", "b"]]
  };

  // A value typed on the command line: its JSON reading, or the text itself
  // as a string when it is not JSON. Throws std::invalid_argument for JSON
  // that is no value (see fromJson).
  [[nodiscard]] static RX::RXValue fromArgument(const std::string& text, Objects objects = Objects::Refuse);
  // Throws std::invalid_argument, saying why, for an integer beyond 32 bits, a
  // number beyond the float range, bad base64, an object reference, or an
  // object that `objects` does not allow.
  [[nodiscard]] static RX::RXValue fromJson(const nlohmann::json& json, Objects objects = Objects::Refuse);

  // Floats become JSON numbers with a fraction (5.0, not 5) holding the
  // shortest decimal that reads back to the same float.
  [[nodiscard]] static nlohmann::json toJson(const RX::RXValue& value);
  // toJson on one line; bytes that are not UTF-8 are replaced rather than
  // refused, so any stored string prints.
  [[nodiscard]] static std::string toText(const RX::RXValue& value);
  // The same for any JSON document the command line prints.
  [[nodiscard]] static std::string dump(const nlohmann::json& json);
};

}  // namespace rxcli
