#pragma once
/// @file
/// Messages about events, whose lines in the system log have another form than PXR_syslog_message's.

#include <cstdint>

/// Writes a message about events to the system log: "WXPLG0907A-E", the common text, and the message's own. It goes where
/// PXR_set_syslog_output and PXR_disable_syslog_output say.
/// @param messageId  in set 6 of KvAgent.cat
/// @param priority   LOG_ERR; LOG_CRIT or LOG_WARNING; LOG_INFO; nothing is written for others
void PutSyslogMessage(uint32_t messageId, int priority);
