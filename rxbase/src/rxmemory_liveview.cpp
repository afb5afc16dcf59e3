// The memory's rows for the broker's live view (/live): every key with its
// kind, value as text, last write time, description and subscribers, as JSON.
// A row never fails: what cannot be shown whole is noted in the row.
#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <nlohmann/json.hpp>

#include "rxmemory.h"

namespace RX {

namespace {

using SharedLock = boost::shared_lock<SharedMutex>;
using CellLock = boost::lock_guard<CompactRecursiveMutex>;

const char* kindWord(dataType type) {
  switch (type) {
    case Data: return "data";
    case ShmData: return "shmData";
    case Event: return "event";
    case MicroEvent: return "microEvent";
    default: return "unknown";
  }
}

const char* typeWord(const RXValue& value) {
  switch (value.getType()) {
    case RXValue::TypeInvalid: return "invalid";
    case RXValue::TypeArray: return "array";
    case RXValue::TypeBool: return "bool";
    case RXValue::TypeInt: return "int";
    case RXValue::TypeFloat: return "float";
    case RXValue::TypeString: return "string";
    case RXValue::TypeBinary: return "binary";
    case RXValue::TypeObject: return "object";
  }
  return "unknown";
}

// Length of the UTF-8 sequence starting at text[i], 0 when it is not valid
// (overlong forms, surrogates and code points past U+10FFFF included).
std::size_t utf8Length(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char c = byte(i);
  if (c < 0x80) return 1;
  std::size_t n;
  unsigned char low = 0x80, high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (i + n > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = 2; k < n; ++k)
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  return n;
}

// At most `limit` bytes of text as valid UTF-8: a byte that is not part of a
// valid sequence is written as the four characters \xNN. Sets cut when text
// was longer.
std::string showable(const std::string& text, std::size_t limit, bool& cut) {
  std::string out;
  out.reserve(std::min(text.size(), limit));
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t n = utf8Length(text, i);
    if (out.size() + (n == 0 ? 4 : n) > limit) break;
    if (n == 0) {
      char escaped[5];
      std::snprintf(escaped, sizeof(escaped), "\\x%02X", static_cast<unsigned char>(text[i]));
      out += escaped;
      i += 1;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  cut = i < text.size();
  return out;
}

std::string dump(const nlohmann::json& json) {
  // Every text went through showable() already; replace is a second guard.
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::string RXMemory::liveTableJson() {
  // The map lock is held only to copy the handles and descriptions: each
  // row then reads its cell under the cell's own locks.
  std::vector<std::pair<std::string, std::pair<boost::shared_ptr<STMValue>, std::string>>> cells;
  {
    SharedLock lock(keyMapMutex);
    cells.reserve(keyMap.size());
    for (const auto& entry : keyMap) cells.push_back({entry.first, {entry.second, entry.second->getDescription()}});
  }
  std::sort(cells.begin(), cells.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string out = "[";
  for (const auto& entry : cells) {
    if (out.size() > 1) out += ',';
    out += liveRow(entry.first, *entry.second.first, entry.second.second);
  }
  out += "]";
  return out;
}

std::string RXMemory::liveRowJson(const std::string& name) {
  boost::shared_ptr<STMValue> cell;
  std::string description;
  {
    SharedLock lock(keyMapMutex);
    auto it = keyMap.find(name);
    if (it != keyMap.end()) {
      cell = it->second;
      description = cell->getDescription();
    }
  }
  if (!cell) return RXModule::liveRowJson(name);
  return liveRow(name, *cell, description);
}

std::string RXMemory::liveRow(const std::string& name, STMValue& cell, const std::string& description) {
  RXValue value;
  dataType type;
  mz::os::timeval written;
  {
    CellLock lock(cell.valueMutex);
    value = cell.value;
    type = cell.type;
    written = cell.timestamp;
  }
  bool cut = false;
  std::string note;
  std::string text = showable(value.toString(1), kLiveValueBytes, cut);
  if (cut) note = "value cut for display: the first " + std::to_string(text.size()) + " bytes are shown";
  if (value.getType() == RXValue::TypeBinary) {
    // Shown with its two companion keys, as on the memory's own page; one
    // missing is noted, never an error.
    boost::shared_ptr<STMValue> format = findCell(name + "_type");
    boost::shared_ptr<STMValue> size = findCell(name + "_val");
    if (format && size) {
      RXValue formatValue, sizeValue;
      {
        CellLock lock(format->valueMutex);
        formatValue = format->value;
      }
      {
        CellLock lock(size->valueMutex);
        sizeValue = size->value;
      }
      bool ignored = false;
      text = showable(formatValue.toString(1) + " " + sizeValue.toString(1) + " " + text, kLiveValueBytes, ignored);
    } else {
      note = "binary value without its companion keys " + name + "_type and " + name + "_val";
    }
  }
  bool ignored = false;
  nlohmann::json row = {{"name", showable(name, name.size() * 4, ignored)},
                        {"kind", kindWord(type)},
                        {"type", typeWord(value)},
                        {"value", text},
                        {"sec", written.tv_sec},
                        {"usec", written.tv_usec},
                        {"description", showable(description, description.size() * 4, ignored)},
                        {"subscribers", nlohmann::json::array()}};
  for (const std::string& subscriber : cell.getNotifierList())
    row["subscribers"].push_back(showable(subscriber, subscriber.size() * 4, ignored));
  if (!note.empty()) row["note"] = note;
  return dump(row);
}

}  // namespace RX
