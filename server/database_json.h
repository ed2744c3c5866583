// A Database read from a JSON document (format in server/README.md).
//
// The whole document is validated while it is loaded: every id, type,
// value, nested child and history series is checked, and the first fault
// found throws util::EFatal with a message that names the object (or the
// history series) and the field at fault. A database that loaded holds
// every object in memory and answers lookups from hash maps; it never
// changes afterwards.
#ifndef TALVIX_SERVER_DATABASE_JSON_H_
#define TALVIX_SERVER_DATABASE_JSON_H_

#include <memory>
#include <string>

#include "server/database.h"

namespace server {

// Parses and validates a JSON document held in memory.
std::unique_ptr<Database> parse_json_database(const std::string& text);

// Reads the file at `path` and parses it as parse_json_database() does. A
// file that cannot be read throws util::EFatal "Cannot read database file
// \"<path>\": <system text>"; faults in its content throw the loader's
// message prefixed with the path and ": ".
std::unique_ptr<Database> load_json_database(const std::string& path);

}  // namespace server

#endif  // TALVIX_SERVER_DATABASE_JSON_H_
