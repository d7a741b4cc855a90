/* logs: a line that is masked in the log, and one that must never be written. */
#include <msgapi.h>

int main(void) {
  mlog_print("logs", MLOG_LEVEL_INFO, "lease for 00:11:22:33:44:55 at 192.168.1.10");
  mlog_print("logs", MLOG_LEVEL_WARN, "login of %s failed", "admin"); /* never the password */
  return MlogFlushLog();
}
