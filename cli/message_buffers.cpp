#include "cli/message_buffers.h"

char lc_messages[256];
char outline[1024];
char msg[1024];
char msg_E[1024];
