// Out-of-line destructors of the interfaces the library implements. They
// anchor the vtables and type information of these classes in liborvi, so
// hosts and the library agree on one copy.
#include "orvi/conversation.h"
#include "orvi/conversation_hub.h"
#include "orvi/sync_channel.h"

namespace orvi {

Conversation::~Conversation() = default;
ConversationHub::~ConversationHub() = default;
SyncChannel::~SyncChannel() = default;

}  // namespace orvi
