// Answers to requests: every protocol::Request gets exactly one encoded
// protocol::Response with the same id.
//
// SelectReq is evaluated by select_eval.h; GetDataReq is answered from the
// stored history (GetDataResp with the series' datatype and rows, or
// ErrorResp 1 when the object or the series is unknown); a datatype outside
// 0..17 is sent as it is, which clients refuse to decode; every other
// request kind gets ErrorResp 12.
#ifndef TALVIX_SERVER_REQUEST_HANDLER_H_
#define TALVIX_SERVER_REQUEST_HANDLER_H_

#include <cstdint>
#include <string>

#include "protocol/messages.h"
#include "server/database.h"
#include "server/object_cache.h"

namespace server {

// The encoded Response to `request`. Never throws for
// anything a client can send: what cannot be answered otherwise becomes an
// ErrorResp (14 when stored data does not fit the wire).
std::string answer_request(const Database& db, ObjectCache& cache,
                           const protocol::Request& request);

// An encoded Response with `id` carrying ErrorResp `code` and one text.
std::string error_response(int32_t id, int32_t code, const std::string& text);

}  // namespace server

#endif  // TALVIX_SERVER_REQUEST_HANDLER_H_
