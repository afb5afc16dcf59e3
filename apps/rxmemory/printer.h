// Printer: how rxmemory writes its results on standard output. By default
// readably: a value as RXValue's toString (strings quoted), names one per
// line, times in local time. With --json: one JSON document per line, values
// in the mapping of JsonValue, so scripts read each line with a JSON parser;
// times as named fields: "time" in ISO 8601 UTC to the microsecond, and the
// memory's own "seconds" and "microseconds".
// Not thread-safe: callers printing from several threads serialise the calls.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "rx/rxvalue.h"

namespace mz {
class MetaObject;
}

namespace rxcli {

class Printer {
 public:
  Printer(std::ostream& out, bool json);

  bool json() const { return json_; }

  // One value on one line.
  void value(const RX::RXValue& value);
  // A list of names: one per line, unquoted (one JSON array with --json).
  // REQUIRES: names is an array of strings.
  void names(const RX::RXValue& names);
  // A word or a sentence: as it is (a JSON string with --json).
  void text(const std::string& text);
  // [value, seconds, microseconds] as "YYYY-MM-DD HH:MM:SS.uuuuuu VALUE"
  // ({"value", "time", "seconds", "microseconds"} with --json).
  void timestamped(const RX::RXValue& entry);
  // A history: one timestamped line per entry, oldest first (a JSON array of
  // the objects above); a key never raised as an event has no history and
  // prints "invalid" (null).
  void history(const RX::RXValue& history);
  // Entries [name, kind, description] as "NAME (KIND): DESCRIPTION" (a JSON
  // array of {"name", "kind", "description"}). The memory pads an answer for
  // named keys with empty slots; they are skipped.
  void descriptions(const RX::RXValue& entries);
  // The published catalogue of `module`: every method, or those named
  // `method`, each with its signature, description, parameters and return.
  void catalogue(const std::string& module, const mz::MetaObject& meta, const std::string& method);
  // What `watch` saw happen to a key.
  enum class Change {
    kRaise,  // an event or micro-event raised: "HH:MM:SS.mmm KEY VALUE"
    kWrite,  // a plain write found by polling: "... (write)"
    kNew,    // a matching key that appeared while watching: "... (new)"
  };
  // One line; with --json {"key", "time", "value", "kind"}, kind one of
  // "raise", "write", "new".
  void change(Change kind, const std::string& key, std::chrono::system_clock::time_point when,
              const RX::RXValue& value);

  // "YYYY-MM-DD HH:MM:SS" in local time, followed by `fractionDigits` digits
  // of `micros` (3 for milliseconds, 6 for microseconds; 0 for none).
  [[nodiscard]] static std::string localTime(std::int64_t seconds, std::int64_t micros, int fractionDigits);
  // "YYYY-MM-DDTHH:MM:SS.uuuuuuZ": ISO 8601 in UTC, for --json.
  [[nodiscard]] static std::string isoTime(std::int64_t seconds, std::int64_t micros);

 private:
  void timestampedLine(const RX::RXValue& entry);

  std::ostream& out_;
  const bool json_;
};

}  // namespace rxcli
