// What the servers must be told anew on every connection.
#pragma once

namespace msgkit {

// To the message server, once connected; failures are logged as module `name`.
void announce_all(const char *name);

// To the notify client, which forgets its procedures with each failed attempt.
void register_notifications();

}  // namespace msgkit
