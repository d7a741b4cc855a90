/* What other processes say to @NAME@. */
#ifndef DAEMON_MESSAGES_H
#define DAEMON_MESSAGES_H

#define TYPE_DOUBLE 0x7001u /* ulMsgData: a number; answer: ulMsgData, twice the number */

#endif
