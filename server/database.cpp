#include "server/database.h"

namespace server {

const PropertyValue* StoredObject::findProperty(const std::string& name) const {
  for (const PropertyValue& p : properties) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

}  // namespace server
