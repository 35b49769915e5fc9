// Everything a host needs: include this one header.
#pragma once

#include "orvi/conversation.h"
#include "orvi/conversation_hub.h"
#include "orvi/conversation_types.h"
#include "orvi/enums.h"
#include "orvi/export.h"
#include "orvi/logger.h"
#include "orvi/message_types.h"
#include "orvi/message_utils.h"
#include "orvi/sql_executor.h"
#include "orvi/sync_channel.h"
#include "orvi/transport.h"
#include "orvi/transport_types.h"
#include "orvi/version.h"
