// The demo's front end: reports failed logins of one client until the login control forbids it. The
// exit status is 0 when that happened after as many failures as are allowed.

#include <cstdio>

#include "msgapi.h"
#include "msgapi/login_records.h"

int main() {
  if (ORP_MSG_InitWithoutHandle("login") != ORP_OK) return 1;
  const ORP_LCTRL_LIMIT_ST limit = {.ulMaxFailedTimes = 3, .ulForbiddenTime = 60};
  if (ORP_LCTRLAPI_SetMaxFailedTimes(&limit) != 0) return 1;

  ORP_LCTRL_REQUEST_ST attempt = {};
  attempt.ulOutcome = ORP_LCTRL_FAILED;
  std::snprintf(attempt.aucClient, sizeof attempt.aucClient, "192.168.1.77");
  std::snprintf(attempt.aucAccount, sizeof attempt.aucAccount, "admin");
  for (uint32_t failures = 1; failures <= limit.ulMaxFailedTimes; ++failures) {
    ORP_LCTRL_RESULT_ST result;
    if (ORP_LCTRLAPI_Login(&attempt, &result) != 0) return 1;
    const bool forbidden = result.ulVerdict == ORP_LCTRL_FORBIDDEN;
    std::printf("login: wrong password %u: %s, %u s\n", failures,
                forbidden ? "locked out" : "try again", result.ulForbiddenTime);
    if (forbidden) return failures == limit.ulMaxFailedTimes ? 0 : 1;
  }
  return 1;
}
