#include "printer.h"

#include <time.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "jsonvalue.h"
#include "mz/object.h"
#include "net/catalogjson.h"

namespace rxcli {

namespace {

bool isTimestampEntry(const RX::RXValue& v) {
  return v.isArray() && v.getSize() == 3 && v[1].isInt() && v[2].isInt();
}

nlohmann::json timestampJson(const RX::RXValue& entry) {
  if (!isTimestampEntry(entry)) return JsonValue::toJson(entry);
  const int seconds = entry[1].toInt(), micros = entry[2].toInt();
  return {{"value", JsonValue::toJson(entry[0])},
          {"time", Printer::isoTime(seconds, micros)},
          {"seconds", seconds},
          {"microseconds", micros}};
}

std::int64_t microsSinceEpoch(std::chrono::system_clock::time_point when) {
  return std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
}

}  // namespace

Printer::Printer(std::ostream& out, bool json) : out_(out), json_(json) {}

void Printer::value(const RX::RXValue& value) {
  out_ << (json_ ? JsonValue::toText(value) : value.toString(1)) << '\n';
}

void Printer::names(const RX::RXValue& names) {
  if (json_) {
    value(names);
    return;
  }
  for (std::size_t i = 0, n = names.getSize(); i < n; ++i) out_ << names[i].toString(0) << '\n';
}

void Printer::text(const std::string& text) {
  out_ << (json_ ? JsonValue::dump(nlohmann::json(text)) : text) << '\n';
}

void Printer::timestamped(const RX::RXValue& entry) {
  if (json_) {
    out_ << JsonValue::dump(timestampJson(entry)) << '\n';
    return;
  }
  if (!isTimestampEntry(entry)) {
    value(entry);
    return;
  }
  timestampedLine(entry);
}

void Printer::history(const RX::RXValue& history) {
  if (json_ && history.isArray()) {
    nlohmann::json entries = nlohmann::json::array();
    for (std::size_t i = 0, n = history.getSize(); i < n; ++i) entries.push_back(timestampJson(history[i]));
    out_ << JsonValue::dump(entries) << '\n';
    return;
  }
  if (json_ || !history.isArray()) {
    value(history);
    return;
  }
  for (std::size_t i = 0, n = history.getSize(); i < n; ++i) {
    if (isTimestampEntry(history[i]))
      timestampedLine(history[i]);
    else
      value(history[i]);
  }
}

void Printer::timestampedLine(const RX::RXValue& entry) {
  out_ << localTime(entry[1].toInt(), entry[2].toInt(), 6) << ' ' << entry[0].toString(1) << '\n';
}

void Printer::descriptions(const RX::RXValue& entries) {
  if (!entries.isArray()) {
    value(entries);
    return;
  }
  nlohmann::json all = nlohmann::json::array();
  for (std::size_t i = 0, n = entries.getSize(); i < n; ++i) {
    const RX::RXValue& e = entries[i];
    if (!e.isValid()) continue;  // the padding slots of a request for named keys
    const bool entry = e.isArray() && e.getSize() == 3 && e[0].isString();
    if (json_) {
      all.push_back(!entry ? JsonValue::toJson(e)
                           : nlohmann::json{{"name", e[0].toStdString()},
                                            {"kind", JsonValue::toJson(e[1])},
                                            {"description", JsonValue::toJson(e[2])}});
      continue;
    }
    if (!entry) {
      value(e);
      continue;
    }
    out_ << e[0].toStdString();
    if (e[1].isValid()) out_ << " (" << e[1].toString(0) << ")";
    const std::string description = e[2].isString() ? e[2].toStdString() : e[2].toString(1);
    if (!description.empty()) out_ << ": " << description;
    out_ << '\n';
  }
  if (json_) out_ << JsonValue::dump(all) << '\n';
}

void Printer::catalogue(const std::string& module, const mz::MetaObject& meta, const std::string& method) {
  if (json_) {
    nlohmann::json methods = nlohmann::json::array();
    for (const mz::MetaMethod& m : meta.methods)
      if (method.empty() || m.name == method) methods.push_back(net::methodToJson(m));
    nlohmann::json doc = {{"module", module}, {"description", meta.description}, {"methods", methods}};
    out_ << JsonValue::dump(doc) << '\n';
    return;
  }
  if (method.empty()) out_ << module << ": " << meta.description << '\n';
  bool first = !method.empty();  // a whole catalogue starts after its module line
  for (const mz::MetaMethod& m : meta.methods) {
    if (!method.empty() && m.name != method) continue;
    if (!first) out_ << '\n';
    first = false;
    out_ << m.signature() << '\n';
    if (!m.description.empty()) out_ << "    " << m.description << '\n';
    for (const mz::MetaParameter& p : m.parameters) out_ << "    " << p.name << ": " << p.description << '\n';
    if (m.hasReturn) out_ << "    returns " << m.returnName << ": " << m.returnDescription << '\n';
    // Mask 4: the result is an address only valid in the module's process.
    if (m.mask != 0)
      out_ << "    mask " << m.mask << (m.mask == 4 ? ": not callable from another process" : "") << '\n';
  }
}

void Printer::change(Change kind, const std::string& key, std::chrono::system_clock::time_point when,
                     const RX::RXValue& value) {
  const std::int64_t micros = microsSinceEpoch(when);
  const std::int64_t seconds = micros / 1000000;
  const std::int64_t fraction = micros % 1000000;
  static const char* const kKinds[] = {"raise", "write", "new"};
  const char* kindName = kKinds[static_cast<int>(kind)];
  if (json_) {
    nlohmann::json line = {{"key", key},
                           {"time", isoTime(seconds, fraction)},
                           {"value", JsonValue::toJson(value)},
                           {"kind", kindName}};
    out_ << JsonValue::dump(line) << std::endl;
    return;
  }
  // Time of day first, as in a log: the date is rarely what one follows.
  out_ << localTime(seconds, fraction, 3).substr(11) << ' ' << key << ' ' << value.toString(1);
  if (kind != Change::kRaise) out_ << " (" << kindName << ')';
  out_ << std::endl;
}

std::string Printer::isoTime(std::int64_t seconds, std::int64_t micros) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm parts {};
  gmtime_r(&t, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%06lldZ", static_cast<long long>(micros));
  return text + std::string(fraction);
}

std::string Printer::localTime(std::int64_t seconds, std::int64_t micros, int fractionDigits) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm parts {};
  localtime_r(&t, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  std::string out(text);
  if (fractionDigits > 0) {
    char fraction[16];
    std::int64_t scaled = micros;
    for (int d = 6; d > fractionDigits; --d) scaled /= 10;
    std::snprintf(fraction, sizeof fraction, ".%0*lld", fractionDigits, static_cast<long long>(scaled));
    out += fraction;
  }
  return out;
}

}  // namespace rxcli
