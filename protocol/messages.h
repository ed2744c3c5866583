// Every message class of the protocol, for code that sends or receives
// messages. The classes are plain public-member data over the generic
// sequence and list machinery of message_base.h.
#ifndef TALVIX_PROTOCOL_MESSAGES_H_
#define TALVIX_PROTOCOL_MESSAGES_H_

#include "protocol/ber_primitives.h"
#include "protocol/message_base.h"
#include "protocol/message_lists.h"
#include "protocol/messages_check.h"
#include "protocol/messages_data.h"
#include "protocol/messages_query.h"
#include "protocol/messages_session.h"
#include "protocol/property_values.h"

#endif  // TALVIX_PROTOCOL_MESSAGES_H_
