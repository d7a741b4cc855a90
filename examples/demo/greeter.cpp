// The demo's dynamic application: started by the message server at the first connection to its
// port, which it takes over as descriptor 3. It greets that one client and ends.

#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "msgapi.h"

int main() {
  constexpr int kListener = 3;
  if (ORP_MSG_InitWithoutHandle("greeter") != ORP_OK) return 1;
  const int client = ::accept4(kListener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return 1;

  const std::string text =
      "greeter: started by this connection as process " + std::to_string(::getpid()) + "\n";
  const ssize_t written = ::write(client, text.data(), text.size());
  ::close(client);
  return written == static_cast<ssize_t>(text.size()) ? 0 : 1;
}
