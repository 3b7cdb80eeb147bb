#pragma once
/// @file
/// The way to the system log, for messages of other forms than PXR_syslog_message's.

/// Writes one line under the agent's identity. It goes where PXR_set_syslog_output and PXR_disable_syslog_output say.
/// @param head  what the system log shows before the text; a stream gets the text alone
void PXR_WriteSyslogLine(int priority, const char* head, const char* text);
