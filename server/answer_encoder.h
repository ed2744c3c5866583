// Encoding of the server's answers straight from the database's values into
// a caller's buffer, without building protocol messages first, in the
// current encoding (the only one the server speaks).
//
// Every function writes exactly the octets the protocol message classes
// write for the same content (tag, indefinite length and end of contents for
// every constructed value, the fields in their wire order, the primitives
// through the protocol's own primitive classes), and fails as they do: a
// field outside its wire limits throws protocol::EBer with the same text.
// On a throw `out` holds a partial answer; callers cut it back.
#ifndef TALVIX_SERVER_ANSWER_ENCODER_H_
#define TALVIX_SERVER_ANSWER_ENCODER_H_

#include <cstdint>
#include <string>

#include "server/database.h"

namespace server {

// Appends the head of the Object for `object`: everything up to and
// including its property list (empty unless `withProperties`), i.e. the
// Object without the child list, the number set and its own end of contents.
void append_object_head(std::string& out, const StoredObject& object, bool withProperties);

// After a head: appends the start of the Object's child list; the children
// (complete Objects) follow, then append_object_end() closes the list and
// writes the empty number set and the Object's end of contents.
void append_child_list_start(std::string& out);
void append_object_end(std::string& out);

// Appends the start of a Response with `id` (0..0x7fffffff) carrying a
// SelectResp, up to its object list's indefinite length; the objects follow
// and append_select_response_end() closes the three values.
void append_select_response_start(std::string& out, int32_t id);
void append_select_response_end(std::string& out);

// Appends a Response with `id` carrying a GetDataResp with `history`'s
// datatype (written as it is, outside 0..17 too) and rows.
void append_get_data_response(std::string& out, int32_t id, const History& history);

// Appends a Response with `id` (0..0x7fffffff) carrying an ErrorResp with
// `code` and the one text `text` (at most 1024 octets).
void append_error_response(std::string& out, int32_t id, int32_t code, const std::string& text);

}  // namespace server

#endif  // TALVIX_SERVER_ANSWER_ENCODER_H_
