#include "net/catalogjson.h"

#include "mz/typeconv.h"

namespace net {

nlohmann::json methodToJson(const mz::MetaMethod& m) {
  nlohmann::json params = nlohmann::json::array();
  for (const mz::MetaParameter& p : m.parameters)
    params.push_back({{"name", p.name}, {"description", p.description}, {"type", mz::paramTypeName(p.type)}});
  nlohmann::json entry = {{"name", m.name},
                          {"className", m.className},
                          {"description", m.description},
                          {"mask", m.mask},
                          {"signature", m.signature()},
                          {"parameters", params}};
  if (m.hasReturn)
    entry["return"] = {
        {"name", m.returnName}, {"description", m.returnDescription}, {"type", mz::paramTypeName(m.returnType)}};
  else
    entry["return"] = nullptr;
  return entry;
}

}  // namespace net
