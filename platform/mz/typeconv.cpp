#include "mz/typeconv.h"

namespace mz {

const char* paramTypeName(ParamType t) {
  switch (t) {
    case ParamType::Void: return "void";
    case ParamType::Bool: return "bool";
    case ParamType::Int: return "int";
    case ParamType::Float: return "float";
    case ParamType::String: return "string";
    case ParamType::Value: return "RXValue";
    case ParamType::StringList: return "list of strings";
    case ParamType::StringMap: return "map from string to string";
    case ParamType::Object: return "object";
    case ParamType::Pointer: return "pointer";
  }
  return "unknown";
}

}  // namespace mz
