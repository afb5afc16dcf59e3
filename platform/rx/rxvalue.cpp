#include "rx/rxvalue.h"

#include <charconv>
#include <cstring>
#include <memory>
#include <utility>

#include "mz/object.h"
#include "rx/rxerror.h"

namespace RX {

static_assert(sizeof(RXValue) == 16, "RXValue must stay a 16-byte value");

namespace {

// "a string", "an int": the kind with its article, for error messages.
std::string withArticle(int type) {
  if (type == RXValue::TypeInvalid) return "an invalid value";
  const char* name = RXValue::TypeToString(type);
  const bool vowel = std::strchr("aeiou", name[0]) != nullptr;
  return std::string(vowel ? "an " : "a ") + name;
}

[[noreturn]] void throwConversion(const char* method, int from, const char* to) {
  throw RXError("RXValue", method, "Can't convert " + withArticle(from) + " to " + to);
}

// True when `p` is `root` itself or is stored, at any depth, inside it. Used
// to detect an assignment whose source lives inside the destination.
bool contains(const RXValue& root, const RXValue* p) {
  if (&root == p) return true;
  if (!root.isArray()) return false;
  for (std::size_t i = 0, n = root.getSize(); i < n; ++i) {
    if (contains(root[i], p)) return true;
  }
  return false;
}

void appendFloat(std::string& out, float f) {
  char buf[64];
  // The shortest text that reads back to the same float.
  const auto res = std::to_chars(buf, buf + sizeof buf, f);
  const std::string_view text(buf, static_cast<std::size_t>(res.ptr - buf));
  out += text;
  // Keep floats visibly floats: "2.0", not "2" (which would read as an int).
  if (text.find_first_of(".eEn") == std::string_view::npos) out += ".0";
}

void appendQuoted(std::string& out, const std::string& s) {
  out += '"';
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

void appendText(std::string& out, const RXValue& v, int verbosity) {
  switch (v.getType()) {
    case RXValue::TypeInvalid:
      out += "invalid";
      return;
    case RXValue::TypeBool:
      out += v.toBool() ? "true" : "false";
      return;
    case RXValue::TypeInt:
      out += std::to_string(v.toInt());
      return;
    case RXValue::TypeFloat:
      appendFloat(out, v.toFloat());
      return;
    case RXValue::TypeString:
      if (verbosity >= 1) {
        appendQuoted(out, v.toStdString());
      } else {
        out += v.toStdString();
      }
      return;
    case RXValue::TypeArray:
      out += '[';
      for (std::size_t i = 0, n = v.getSize(); i < n; ++i) {
        if (i != 0) out += ", ";
        appendText(out, v[i], verbosity);
      }
      out += ']';
      return;
    case RXValue::TypeBinary:
      out += "<binary ";
      out += std::to_string(v.getSize());
      out += " bytes>";
      return;
    case RXValue::TypeObject:
      out += "<object>";
      return;
  }
  out += "unknown";
}

}  // namespace

// ---- Construction and lifetime ----

RXValue::RXValue(const char* v) : type_(TypeString) {
  payload_.s = std::make_unique<std::string>(v != nullptr ? v : "").release();
}

RXValue::RXValue(const std::string& v) : type_(TypeString) {
  payload_.s = std::make_unique<std::string>(v).release();
}

RXValue::RXValue(std::string&& v) : type_(TypeString) {
  payload_.s = std::make_unique<std::string>(std::move(v)).release();
}

RXValue::RXValue(const std::vector<std::string>& list) : type_(TypeArray) {
  auto a = std::make_unique<std::vector<RXValue>>();
  a->reserve(list.size());
  for (const auto& s : list) a->emplace_back(s);
  payload_.a = a.release();
}

RXValue::RXValue(const Binary& bytes) : type_(TypeBinary) {
  payload_.bin = std::make_unique<Binary>(bytes).release();
}

RXValue::RXValue(const void* data, std::size_t size) : type_(TypeBinary) {
  const auto* p = static_cast<const unsigned char*>(data);
  payload_.bin = (size == 0 ? std::make_unique<Binary>() : std::make_unique<Binary>(p, p + size)).release();
}

RXValue::RXValue(const mz::AnyObject& object) : type_(TypeObject) {
  payload_.obj = std::make_unique<mz::AnyObject>(object).release();
}

RXValue::RXValue(const RXValue& other) : type_(TypeInvalid) {
  payload_.i = 0;
  copyFrom(other);
}

RXValue::RXValue(RXValue&& other) noexcept : payload_(other.payload_), type_(other.type_) {
  other.type_ = TypeInvalid;
  other.payload_.i = 0;
}

RXValue& RXValue::operator=(const RXValue& other) {
  if (this == &other) return *this;
  if (type_ == other.type_) {
    // Same kind: write into the existing storage so that getPtrValue() stays
    // valid and sees the new content.
    switch (type_) {
      case TypeInvalid:
        return *this;
      case TypeBool:
      case TypeInt:
      case TypeFloat:
        payload_ = other.payload_;
        return *this;
      case TypeString:
        *payload_.s = *other.payload_.s;
        return *this;
      case TypeBinary:
        *payload_.bin = *other.payload_.bin;
        return *this;
      case TypeObject:
        *payload_.obj = *other.payload_.obj;
        return *this;
      case TypeArray:
        if (contains(*this, &other)) {
          // The source is one of our own elements: copy it out before the
          // element-wise assignment overwrites it.
          std::vector<RXValue> copy(*other.payload_.a);
          *payload_.a = std::move(copy);
        } else {
          *payload_.a = *other.payload_.a;
        }
        return *this;
    }
  }
  // Build the new payload before freeing the old one: `other` may live inside
  // this value (an element of our array).
  RXValue copy(other);
  clear();
  payload_ = copy.payload_;
  type_ = copy.type_;
  copy.type_ = TypeInvalid;
  return *this;
}

RXValue& RXValue::operator=(RXValue&& other) noexcept {
  if (this == &other) return *this;
  // Take the source out first: it may live inside this value, and it must be
  // left invalid whatever happens to our old payload.
  RXValue taken(std::move(other));
  if (type_ == taken.type_) {
    switch (type_) {
      case TypeInvalid:
        return *this;
      case TypeBool:
      case TypeInt:
      case TypeFloat:
        payload_ = taken.payload_;
        return *this;
      // Same kind: move the content into the existing storage (address stable).
      case TypeString:
        *payload_.s = std::move(*taken.payload_.s);
        return *this;
      case TypeBinary:
        *payload_.bin = std::move(*taken.payload_.bin);
        return *this;
      case TypeObject:
        *payload_.obj = std::move(*taken.payload_.obj);
        return *this;
      case TypeArray:
        *payload_.a = std::move(*taken.payload_.a);
        return *this;
    }
  }
  clear();
  payload_ = taken.payload_;
  type_ = taken.type_;
  taken.type_ = TypeInvalid;
  return *this;
}

void RXValue::clear() noexcept {
  // The one place where this class frees what its union owns: each heap kind
  // is handed back to a unique_ptr of its exact type.
  switch (type_) {
    case TypeString:
      std::unique_ptr<std::string>(payload_.s).reset();
      break;
    case TypeArray:
      std::unique_ptr<std::vector<RXValue>>(payload_.a).reset();
      break;
    case TypeBinary:
      std::unique_ptr<Binary>(payload_.bin).reset();
      break;
    case TypeObject:
      std::unique_ptr<mz::AnyObject>(payload_.obj).reset();
      break;
    case TypeInvalid:
    case TypeBool:
    case TypeInt:
    case TypeFloat:
      break;
  }
  type_ = TypeInvalid;
  payload_.i = 0;
}

// REQUIRES: this value is invalid (holds nothing to free).
void RXValue::copyFrom(const RXValue& other) {
  switch (other.type_) {
    case TypeInvalid:
    case TypeBool:
    case TypeInt:
    case TypeFloat:
      payload_ = other.payload_;
      break;
    case TypeString:
      payload_.s = std::make_unique<std::string>(*other.payload_.s).release();
      break;
    case TypeArray:
      payload_.a = std::make_unique<std::vector<RXValue>>(*other.payload_.a).release();
      break;
    case TypeBinary:
      payload_.bin = std::make_unique<Binary>(*other.payload_.bin).release();
      break;
    case TypeObject:
      payload_.obj = std::make_unique<mz::AnyObject>(*other.payload_.obj).release();
      break;
  }
  type_ = other.type_;
}

RXValue RXValue::array(std::size_t size) {
  RXValue v;
  v.payload_.a = std::make_unique<std::vector<RXValue>>(size).release();
  v.type_ = TypeArray;
  return v;
}

// ---- Kinds and sizes ----

const char* RXValue::TypeToString(int type) noexcept {
  switch (type) {
    case TypeInvalid: return "invalid";
    case TypeArray: return "array";
    case TypeBool: return "bool";
    case TypeInt: return "int";
    case TypeFloat: return "float";
    case TypeString: return "string";
    case TypeObject: return "object";
    case TypeBinary: return "binary";
    default: return "unknown";
  }
}

std::size_t RXValue::getSize() const noexcept {
  switch (type_) {
    case TypeArray: return payload_.a->size();
    case TypeString: return payload_.s->size();
    case TypeBinary: return payload_.bin->size();
    default: return 0;
  }
}

// ---- Element access ----

std::vector<RXValue>& RXValue::arrayRef() {
  if (type_ == TypeInvalid) {
    payload_.a = std::make_unique<std::vector<RXValue>>().release();
    type_ = TypeArray;
  } else if (type_ != TypeArray) {
    throw RXError("RXValue", "array", "Can't use " + withArticle(type_) + " as an array");
  }
  return *payload_.a;
}

const RXValue& RXValue::operator[](std::size_t index) const {
  if (type_ != TypeArray) {
    throw RXError("RXValue", "operator[]", "Can't index " + withArticle(type_) + ": not an array");
  }
  if (index >= payload_.a->size()) {
    throw RXError("RXValue", "operator[]",
                  "Index " + std::to_string(index) + " out of range for an array of size " +
                      std::to_string(payload_.a->size()));
  }
  return (*payload_.a)[index];
}

RXValue& RXValue::operator[](std::size_t index) {
  return const_cast<RXValue&>(static_cast<const RXValue&>(*this)[index]);
}

void RXValue::arrayReserve(std::size_t capacity) { arrayRef().reserve(capacity); }

void RXValue::arraySetSize(std::size_t size) { arrayRef().resize(size); }

void RXValue::arrayPush(const RXValue& element) {
  // Copy first: the element may be this value or one of its own elements,
  // which growing the vector would move or free.
  RXValue copy(element);
  arrayRef().push_back(std::move(copy));
}

void RXValue::arrayPush(RXValue&& element) {
  RXValue taken(std::move(element));
  arrayRef().push_back(std::move(taken));
}

// ---- Conversions ----

RXValue::operator int() const {
  if (type_ != TypeInt) throwConversion("toInt", type_, "int");
  return payload_.i;
}

RXValue::operator float() const {
  if (type_ != TypeFloat) throwConversion("toFloat", type_, "float");
  return payload_.f;
}

RXValue::operator bool() const {
  if (type_ != TypeBool) throwConversion("toBool", type_, "bool");
  return payload_.b;
}

RXValue::operator const std::string&() const {
  if (type_ != TypeString) throwConversion("toStdString", type_, "string");
  return *payload_.s;
}

const RXValue::Binary& RXValue::toBinary() const {
  if (type_ != TypeBinary) throwConversion("toBinary", type_, "binary");
  return *payload_.bin;
}

const mz::AnyObject& RXValue::toObject() const {
  if (type_ != TypeObject) throwConversion("toObject", type_, "object");
  return *payload_.obj;
}

std::vector<std::string> RXValue::toStringList() const {
  if (type_ != TypeArray) throwConversion("toStringList", type_, "list of strings");
  std::vector<std::string> out;
  out.reserve(payload_.a->size());
  for (std::size_t i = 0; i < payload_.a->size(); ++i) {
    const RXValue& e = (*payload_.a)[i];
    if (!e.isString()) {
      throw RXError("RXValue", "toStringList",
                    "Can't convert an array holding " + withArticle(e.type_) + " at index " + std::to_string(i) +
                        " to list of strings");
    }
    out.push_back(*e.payload_.s);
  }
  return out;
}

// ---- Comparison and text ----

bool RXValue::operator==(const RXValue& other) const {
  if (type_ != other.type_) return false;
  switch (type_) {
    case TypeInvalid: return true;
    case TypeBool: return payload_.b == other.payload_.b;
    case TypeInt: return payload_.i == other.payload_.i;
    case TypeFloat: return payload_.f == other.payload_.f;
    case TypeString: return *payload_.s == *other.payload_.s;
    case TypeArray: return *payload_.a == *other.payload_.a;
    case TypeBinary: return *payload_.bin == *other.payload_.bin;
    case TypeObject: return *payload_.obj == *other.payload_.obj;
  }
  return false;
}

std::string RXValue::toString(int verbosity) const {
  std::string out;
  appendText(out, *this, verbosity);
  return out;
}

void* RXValue::getPtrValue() {
  switch (type_) {
    // The inline storage every scalar is later written into, copied or moved.
    case TypeInvalid: return &payload_;
    case TypeBool: return &payload_.b;
    case TypeInt: return &payload_.i;
    case TypeFloat: return &payload_.f;
    case TypeString: return payload_.s;
    case TypeArray: return payload_.a;
    case TypeBinary: return payload_.bin;
    case TypeObject: return payload_.obj;
  }
  return nullptr;
}

}  // namespace RX
