// NSLog: one line on standard error per message, written by one write(2): "2026-11-21 10:00:00.123 vpnctl[4711]
// MESSAGE\n". May be called from any thread. Blocks only as long as standard error does.

#pragma once

namespace vpnctl {

// FORMAT as vpnctl::format takes it, %@ included (a pointer to a Value).
void NSLog(const char *format, ...);

}  // namespace vpnctl
