// The protocol object of the client: the factory of every top-level message
// the server may send (or the client may be sent back), keyed by its fixed
// application tag, the same in both encodings.
#ifndef TALVIX_PROTOCOL_GUI_PROTOCOL_H_
#define TALVIX_PROTOCOL_GUI_PROTOCOL_H_

#include "protocol/ber_protocol.h"

namespace protocol {

// The one shared instance; it holds no state and lives for the whole
// program. makeMessage throws EBer "Unknown tag <code>" for a tag that
// starts no top-level message.
const BerProtocol& guiProtocol();

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_GUI_PROTOCOL_H_
