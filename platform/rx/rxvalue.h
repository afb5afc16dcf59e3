// RXValue: the variant value of the framework. Every stored value, argument and
// payload is one: invalid, array, bool, int (32-bit), float (32-bit), string,
// binary or object (a handle to a dynamic object, see mz::AnyObject).
//
// A value is 16 bytes: a kind tag and an inline payload for the scalar kinds, a
// heap block for the others. Assigning a value of the same kind writes into the
// existing storage, so the address given by getPtrValue() stays valid and sees
// later writes for as long as the value keeps its kind (or, from invalid, takes
// its first scalar: scalars live in that same inline storage).
//
// Thread safety: like std::string; const members may be used from several
// threads at once, any write needs exclusive access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mz {
class AnyObject;
}

namespace RX {

class RXValue {
 public:
  // Kind codes are part of the interface (the status page prints them).
  enum Type : int {
    TypeInvalid = 0,
    TypeArray = 1,
    TypeBool = 2,
    TypeInt = 3,
    TypeFloat = 4,
    TypeString = 5,
    TypeObject = 6,
    TypeBinary = 7,
  };
  using Binary = std::vector<unsigned char>;

  RXValue() noexcept : type_(TypeInvalid) { payload_.i = 0; }
  RXValue(int v) noexcept : type_(TypeInt) { payload_.i = v; }
  RXValue(float v) noexcept : type_(TypeFloat) { payload_.f = v; }
  RXValue(bool v) noexcept : type_(TypeBool) { payload_.b = v; }
  RXValue(const char* v);
  RXValue(const std::string& v);
  RXValue(std::string&& v);
  RXValue(const std::vector<std::string>& list);
  RXValue(const Binary& bytes);
  RXValue(const void* data, std::size_t size);  // binary copy of size bytes
  RXValue(const mz::AnyObject& object);
  // Disallowed conversions that would otherwise silently go through bool/int.
  RXValue(double) = delete;
  RXValue(const void*) = delete;

  RXValue(const RXValue& other);
  RXValue(RXValue&& other) noexcept;
  RXValue& operator=(const RXValue& other);
  RXValue& operator=(RXValue&& other) noexcept;
  ~RXValue() { clear(); }

  // Builds an empty array of the given size (every element invalid).
  static RXValue array(std::size_t size = 0);

  Type getType() const noexcept { return type_; }
  bool isValid() const noexcept { return type_ != TypeInvalid; }
  bool isArray() const noexcept { return type_ == TypeArray; }
  bool isBool() const noexcept { return type_ == TypeBool; }
  bool isInt() const noexcept { return type_ == TypeInt; }
  bool isFloat() const noexcept { return type_ == TypeFloat; }
  bool isString() const noexcept { return type_ == TypeString; }
  bool isObject() const noexcept { return type_ == TypeObject; }
  bool isBinary() const noexcept { return type_ == TypeBinary; }

  // Name of a kind for messages: "invalid", "array", "bool", "int", "float",
  // "string", "object", "binary"; "unknown" for any other code.
  static const char* TypeToString(int type) noexcept;

  // Arrays: number of elements; strings and binaries: number of bytes;
  // 0 for the other kinds.
  std::size_t getSize() const noexcept;
  // Element access on an array; throws RXError when this is not an array (an
  // invalid value included: arraySetSize or arrayPush make it one) or the
  // index is out of range.
  RXValue& operator[](std::size_t index);
  const RXValue& operator[](std::size_t index) const;

  // Conversions: throw RXError naming both kinds when the value is of another
  // kind ("Can't convert a string to int").
  explicit operator int() const;
  explicit operator float() const;
  explicit operator bool() const;
  explicit operator const std::string&() const;
  int toInt() const { return static_cast<int>(*this); }
  float toFloat() const { return static_cast<float>(*this); }
  bool toBool() const { return static_cast<bool>(*this); }
  const std::string& toStdString() const { return static_cast<const std::string&>(*this); }
  const Binary& toBinary() const;
  const mz::AnyObject& toObject() const;
  // Array of strings -> vector; throws RXError on any other content.
  std::vector<std::string> toStringList() const;

  // Arrays (an invalid value becomes an empty array first).
  void arrayReserve(std::size_t capacity);
  void arraySetSize(std::size_t size);
  void arrayPush(const RXValue& element);
  void arrayPush(RXValue&& element);

  bool operator==(const RXValue& other) const;
  bool operator!=(const RXValue& other) const { return !(*this == other); }

  // Readable and unambiguous text: invalid -> "invalid", strings quoted with
  // '"' and '\\' escaped, arrays bracketed "[1, \"a\"]", binary as
  // "<binary 12 bytes>", floats always with a decimal point ("1.5", "2.0").
  // Verbosity 0 prints strings without quotes; 1 and above quote them.
  std::string toString(int verbosity = 1) const;

  // Address of the stored payload: the int, float or bool itself, the
  // std::string, the std::vector<RXValue> of an array or the Binary vector.
  // Valid while the value lives and keeps its kind. An invalid value gives the
  // inline storage that a later int, float or bool is written into, so an
  // address taken before the first number sees it (never nullptr).
  void* getPtrValue();

 private:
  void clear() noexcept;
  void copyFrom(const RXValue& other);
  std::vector<RXValue>& arrayRef();

  union Payload {
    int i;
    float f;
    bool b;
    std::string* s;
    std::vector<RXValue>* a;
    Binary* bin;
    mz::AnyObject* obj;
  } payload_;
  Type type_;
};

}  // namespace RX
